// The host's service loop: it owns the package's bus name, answers Open by
// starting a background task on one end of a new socket, and decides when
// to end.
//
// Only the loop's thread touches the bus. Served connections end on the
// runtime's pool threads, which tell the loop through an eventfd.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

#include "HostOptions.h"
#include "HostStatus.h"
#include "Posix/FileDescriptor.h"
#include "ServiceLibrary.h"

namespace Quorvendale::AppHost {

class ServedConnections;

class AppServiceHost {
public:
    // Descriptors kept for the host's own use beyond its connections: a file
    // or folder for each pool thread at work, the bus, the loop's own, the
    // library's. A connection takes one; past its soft RLIMIT_NOFILE less
    // this margin, the host refuses Open rather than fail to answer it. A
    // host at a low limit keeps half of it, so that it still serves some.
    static constexpr std::size_t descriptorMargin = 128;
    // A connection costs no thread, but a descriptor and the kernel's
    // buffers of its socket pair: past this many, the host refuses rather
    // than let the kernel's memory for it grow without end.
    static constexpr std::size_t maximumConnections = 8192;
    // One client (a process) may hold this share of the connections the
    // host can serve, so that no application takes them all from others.
    static constexpr std::size_t clientConnectionShare = 4;  // a quarter

    // Takes over the bus connection.
    AppServiceHost(const HostOptions& options, const ServiceLibrary& library, sd_bus* bus);
    ~AppServiceHost();
    AppServiceHost(const AppServiceHost&) = delete;
    AppServiceHost& operator=(const AppServiceHost&) = delete;

    // Serves until one of:
    //  - nothing has been served for the idle time and the library can be
    //    unloaded: the name is released first, then what the bus had already
    //    queued for us is still served; 0;
    //  - SIGTERM or SIGINT (which the caller must have blocked in every
    //    thread): the name is released, every task cancelled and every
    //    connection closed; 0;
    //  - the bus goes away: as on SIGTERM, but 1.
    // Exits 1 at once when the name cannot be taken. SIGTERM and SIGINT must
    // be blocked in every thread before the host is made.
    int run();

private:
    static int onOpen(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onProperty(sd_bus*, const char*, const char*, const char* property,
                          sd_bus_message* reply, void* self, sd_bus_error*);
    static int onSignal(sd_event_source*, const struct signalfd_siginfo*, void* self);
    static int onIdleTimer(sd_event_source*, std::uint64_t, void* self);
    static int onConnectionEnded(sd_event_source*, int, std::uint32_t, void* self);
    static int onTrimTimer(sd_event_source*, std::uint64_t, void* self);

    int open(sd_bus_message* call, sd_bus_error* error);
    void serve(Posix::FileDescriptor socket, std::uint64_t client);
    void armIdleTimer(std::uint64_t afterMicroseconds);
    void exitWhenIdle();
    void releaseName();
    void endEverything();
    void awaitUnload();

    const HostOptions& options_;
    const ServiceLibrary& library_;
    sd_bus* bus_;
    sd_event* event_ = nullptr;
    sd_event_source* idleTimer_ = nullptr;
    sd_event_source* trimTimer_ = nullptr;
    std::shared_ptr<ServedConnections> served_;
    bool nameReleased_ = false;
    HostStatus status_;
};

}  // namespace Quorvendale::AppHost
