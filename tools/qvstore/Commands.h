// The commands of qvstore, run on one storage client.
#pragma once

#include <string>
#include <vector>

#include "Quorvendale/Client.hpp"

namespace Quorvendale::Qvstore {

// Runs `command` with its operands (already checked in number) on the store
// and returns the exit status: 0, or 1 when the store did not answer or a
// walk had to stop. Results go to standard output as the usage text says.
// Failures of the store leave as Client::Error; failures to read standard
// input or to write standard output as std::runtime_error.
int runCommand(const Client::Storage& storage, const std::string& command,
               const std::vector<std::string>& operands);

}  // namespace Quorvendale::Qvstore
