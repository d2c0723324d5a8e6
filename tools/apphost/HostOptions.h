// The host's command line. D-Bus activation starts the host with the line
// that the package's service file gives in Exec=, which names everything the
// host serves; nothing else configures it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace Quorvendale::AppHost {

struct HostOptions {
    std::string packageFamilyName;  // the package's identity and its bus name
    std::string appServiceName;     // the one app service it declares
    std::string entryPoint;         // the runtime class of the service's background task
    std::string libraryPath;        // the library that activates that class
    std::chrono::milliseconds idleExit{30'000};
};

enum class ParseOutcome { Run, Help, UsageError };

struct ParsedCommandLine {
    ParseOutcome outcome;
    HostOptions options;
    std::string error;  // with UsageError: what was wrong, in one line
};

ParsedCommandLine parseCommandLine(int argc, const char* const* argv);

// The text --help prints.
std::string usage(const char* program);

}  // namespace Quorvendale::AppHost
