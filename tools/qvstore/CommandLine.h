// What qvstore was asked to do, read from its arguments, and its usage text.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quorvendale::Qvstore {

// The storage server that --remote names.
struct RemoteAddress {
    std::string host;
    std::uint32_t port;
};

struct Invocation {
    enum class Action { run, help, version };

    Action action = Action::run;
    std::string command;                // "read", "write", ...
    std::vector<std::string> operands;  // the command's arguments, as given
    std::optional<RemoteAddress> remote;
    std::optional<std::string> library;       // --library: the path to load instead of the default
    std::optional<std::string> defaultValue;  // read --default: printed for a missing key
    bool json = false;                        // list --json
    bool verbose = false;                     // the library's whole report with each failure
    bool quiet = false;                       // no message for a missing key
};

// A command line that qvstore cannot run; what() is one line saying why.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads argv. --help and --version win over everything after them; any other
// problem throws UsageError.
Invocation parseCommandLine(int argc, const char* const* argv);

// The full usage text; `defaultLibraries` are the paths tried when --library
// is not given, in order.
std::string usage(const std::vector<std::string>& defaultLibraries);

}  // namespace Quorvendale::Qvstore
