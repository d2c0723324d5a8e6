// How qvstore reports a failure: its exit status and its one line.
#pragma once

#include <string>
#include <string_view>

#include "Quorvendale/Client.hpp"

namespace Quorvendale::Qvstore {

// The exit statuses, as the usage text documents them.
enum ExitStatus : int {
    succeeded = 0,
    keyMissing = 1,
    usageFailed = 2,  // a usage error, or input refused before sending
    unreachable = 3,  // the storage service (or server) cannot be reached
    storeFailed = 4,
};

struct Failure {
    ExitStatus status;
    std::string message;  // one line, without "qvstore: <command> ...: "
};

// A failure of the client library, as qvstore reports it: a missing key
// (exit 1, "no such key"), input refused before sending (2), a store that
// cannot be reached (3: for the local service, the connection's status and,
// when there is no session bus, why), any other failure with the store's own
// text (4).
Failure failureOf(const Client::Error& error);

// `text` on one line: control characters as C escapes.
std::string oneLine(std::string_view text);

}  // namespace Quorvendale::Qvstore
