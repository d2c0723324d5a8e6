#include "HostOptions.h"

#include <cmath>
#include <cstdlib>
#include <string_view>

namespace Quorvendale::AppHost {
namespace {

// A positive number of seconds, fractions allowed; nothing otherwise.
std::optional<std::chrono::milliseconds> parseSeconds(const std::string& text) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 ||
        seconds > 86'400) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(static_cast<long long>(std::ceil(seconds * 1000)));
}

}  // namespace

std::string usage(const char* program) {
    return std::string("Usage: ") + program +
           " --package-family-name NAME --app-service NAME --entry-point CLASS"
           " --library PATH [--idle-exit SECONDS]\n"
           "\n"
           "Hosts the app service of one package: D-Bus activation starts it with the\n"
           "command line of the package's service file. It takes the package family\n"
           "name as its bus name and answers Open(s app service name) -> h with one end\n"
           "of a new socket, whose other end is served by a new background task of the\n"
           "entry-point class, activated from the library.\n"
           "\n"
           "  --package-family-name NAME  the package's identity, and the bus name it owns\n"
           "  --app-service NAME          the app service it declares; others are refused\n"
           "  --entry-point CLASS         the runtime class of the service's background task\n"
           "  --library PATH              the library that activates it (DllGetActivationFactory)\n"
           "  --idle-exit SECONDS         exit after this long with nothing to serve (30)\n"
           "  --help                      print this text\n"
           "\n"
           "Once it has loaded the library and made the package's LocalState folder,\n"
           "it can read and write files only under that folder (Landlock), and sees no\n"
           "other file at all (a root of its own in a user and mount namespace). It exits\n"
           "0 when idle or on SIGTERM, 1 when it cannot serve, 2 for a usage error.\n";
}

ParsedCommandLine parseCommandLine(int argc, const char* const* argv) {
    ParsedCommandLine parsed{ParseOutcome::Run, {}, {}};
    HostOptions& options = parsed.options;
    const auto fail = [&](std::string error) {
        return ParsedCommandLine{ParseOutcome::UsageError, {}, std::move(error)};
    };
    for (int at = 1; at < argc; ++at) {
        std::string_view option = argv[at];
        if (option == "--help") return {ParseOutcome::Help, {}, {}};
        std::string value;
        if (const auto equals = option.find('='); equals != std::string_view::npos) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
        } else if (at + 1 < argc) {
            value = argv[++at];
        } else {
            return fail("missing value after " + std::string(option));
        }
        if (option == "--package-family-name") {
            options.packageFamilyName = value;
        } else if (option == "--app-service") {
            options.appServiceName = value;
        } else if (option == "--entry-point") {
            options.entryPoint = value;
        } else if (option == "--library") {
            options.libraryPath = value;
        } else if (option == "--idle-exit") {
            const auto idleExit = parseSeconds(value);
            if (!idleExit) return fail("--idle-exit needs a positive number of seconds");
            options.idleExit = *idleExit;
        } else {
            return fail("unknown option " + std::string(option));
        }
    }
    if (options.packageFamilyName.empty() || options.appServiceName.empty() ||
        options.entryPoint.empty() || options.libraryPath.empty()) {
        return fail(
            "--package-family-name, --app-service, --entry-point and --library are required");
    }
    return parsed;
}

}  // namespace Quorvendale::AppHost
