// quorvendale-apphost: the host of a package's app service, started on demand
// by D-Bus activation (see --help, and HostOptions.h).
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>
#include <vector>

#include "AppServiceHost.h"
#include "HostLog.h"
#include "Platform/Activation/ApplicationData.h"
#include "Platform/AppService/AppServiceBus.h"
#include "Platform/Foundation/Log.h"
#include "Platform/Text/TextConversion.h"
#include "Posix/DescriptorLimit.h"
#include "PrivateRoot.h"
#include "Sandbox.h"

using namespace Quorvendale;
using namespace Quorvendale::AppHost;

namespace {

// Termination arrives through the host's loop; every thread, made later,
// inherits the mask and leaves the signals to it.
void blockTerminationSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// The sanitizers' run-time reads the process's own /proc entries (at exit,
// LeakSanitizer lists the threads there), so a sanitized build lets it and
// sees them in its own root. It reads nothing else once the host is
// confined: no symbolizer can be started from inside, so its reports give
// modules and offsets, to be symbolized afterwards.
std::vector<std::string> alsoReadable() {
    if (!QV_SANITIZED_BUILD) return {};
    return {"/proc/" + std::to_string(::getpid())};
}

// The bus that started us, else the session bus.
std::string busAddress() {
    const char* starter = std::getenv("DBUS_STARTER_ADDRESS");
    return starter && *starter ? starter : Platform::AppServiceBus::sessionBusAddress();
}

int serve(const HostOptions& options) {
    // The package identity: ApplicationData and the store find their folder by it.
    ::setenv("QUORVENDALE_PACKAGE_FAMILY_NAME", options.packageFamilyName.c_str(), 1);
    const ServiceLibrary library(options.libraryPath);
    if (!library.activates(Platform::hstring(Platform::utf8ToUtf16(options.entryPoint)))) {
        logFailure(options.libraryPath + " does not activate " + options.entryPoint);
        return 1;
    }
    const std::string localState =
        Platform::utf16ToUtf8(Platform::ApplicationData::Current().LocalFolder().Path());

    const std::string address = busAddress();
    sd_bus* bus = Platform::AppServiceBus::connect(address);
    if (bus == nullptr) {
        logFailure("cannot connect to the bus at \"" + address + "\"");
        return 1;
    }
    AppServiceHost host(options, library, bus);
    // Last, with everything loaded and made, and before any thread starts.
    std::string confinement = "Landlock and a root of its own";
    try {
        enterPrivateRoot(localState, alsoReadable());
    } catch (const std::system_error& refused) {
        logWarning("cannot hide the file system outside " + localState + " (" + refused.what() +
                   "): Landlock alone confines the service");
        confinement = "Landlock alone";
    }
    if (confineTo(localState, alsoReadable()) == Confinement::Unsupported) {
        logWarning("this kernel has no Landlock: serving without confinement to " + localState);
        confinement = confinement == "Landlock alone" ? "none" : "a root of its own alone";
    }
    logInfo("started: version " QV_VERSION ", pid " + std::to_string(::getpid()) +
            ", data folder " + localState + ", confinement: " + confinement);
    return host.run();
}

}  // namespace

// A file-size limit below a value's size, or a client gone before its answer
// left, is an error for that one request (EFBIG, EPIPE), never the end of
// every connection. Ignored dispositions survive into every thread.
void ignoreFatalSignals() {
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
}

// Large buffers (values, frames) come from the heap and go back to it when
// freed, so the next request finds their pages already there: fresh pages
// cost more than the copies into them. The host's trim timer hands what is
// free back to the system four times a second, so a burst's memory does not
// stay; it can only do that whole for the main heap, so every thread
// allocates there (the per-thread heaps would keep their top). Only frames
// near the largest size get pages of their own.
void keepLargeBuffersUntilTrimmed() {
    ::mallopt(M_ARENA_MAX, 1);
    ::mallopt(M_MMAP_THRESHOLD, 32 << 20);
    ::mallopt(M_TRIM_THRESHOLD, 256 << 20);
}

int main(int argc, char** argv) {
    Platform::enableRuntimeLog();
    blockTerminationSignals();
    ignoreFatalSignals();
    // A connection costs a descriptor: the host takes all the system lets it.
    Posix::raiseDescriptorLimit();
    keepLargeBuffersUntilTrimmed();
    const ParsedCommandLine parsed = parseCommandLine(argc, argv);
    switch (parsed.outcome) {
        case ParseOutcome::Help:
            std::fputs(usage(argv[0]).c_str(), stdout);
            return 0;
        case ParseOutcome::UsageError:
            logFailure(parsed.error + " (see --help)");
            return 2;
        case ParseOutcome::Run:
            break;
    }
    try {
        return serve(parsed.options);
    } catch (const Platform::HResultError& error) {
        logFailure(Platform::utf16ToUtf8(error.message()));
    } catch (const std::exception& error) {
        logFailure(error.what());
    }
    return 1;
}
