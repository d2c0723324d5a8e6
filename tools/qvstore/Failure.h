// How qvstore reports a failure: its exit status and its one line.
#pragma once

#include <string>
#include <string_view>

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

// The message of a failure text of the library: its error reports
// ("Exception:\n\tfile: ...\n\tmessage: <text>") give their last field, other
// texts stand as they are.
std::string messageOf(std::string_view text);

// A failed operation of the local client (`remote` false) or of a remote one,
// from its message.
Failure classifyStoreFailure(std::string_view command, std::string_view message, bool remote);

// The local client could not connect. `libraryOutput` is what the library
// wrote about it; its report names the connection's status. The line says
// which case it is: no session bus, the service not installed, or not started.
Failure describeUnreachable(std::string_view libraryOutput);

// `text` on one line: control characters as C escapes.
std::string oneLine(std::string_view text);

}  // namespace Quorvendale::Qvstore
