// qvstore status: what the running storage service says about itself, read
// from its host's D-Bus properties. It never starts the service: a call that
// would activate it is sent with auto-start off.
#pragma once

#include <cstdio>

namespace Quorvendale::Qvstore {

// Prints the host's counters to `output`, as a short table or, with `json`,
// as one JSON object of property name to value; gives the exit status
// (3 with one line on standard error when the service is not running or the
// session bus cannot be reached).
int runStatus(std::FILE* output, bool json);

}  // namespace Quorvendale::Qvstore
