#include "AppServiceHost.h"

#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <system_error>
#include <thread>

#include "HostLog.h"
#include "Platform/AppService/AppServiceBus.h"
#include "Platform/Background/BackgroundTaskInstance.h"
#include "Platform/Foundation/Mutex.h"
#include "Platform/Text/TextConversion.h"
#include "Posix/WakeUp.h"

namespace Quorvendale::AppHost {

using namespace Platform;

namespace {

constexpr std::uint64_t microseconds(std::chrono::milliseconds time) {
    return static_cast<std::uint64_t>(time.count()) * 1000;
}

// While services are still letting go after their connections ended, the
// idle check looks again this soon.
constexpr std::chrono::milliseconds unloadRetry{20};
// How long an ending host waits for its services to let go before it leaves
// anyway.
constexpr std::chrono::seconds unloadPatience{5};
// How often the host hands the memory its allocator holds free back to the
// system. A burst (many large values, a flood of answers) leaves the heaps
// of the pool threads' arenas large and mostly free; the allocator keeps
// them unless asked, and the host asks it to keep large buffers between
// requests. A quarter second: a burst's memory is back within a second of
// its end, and a steady stream of large values pays fresh pages for one
// request in many. Trimming costs a walk of the free lists, nothing when
// there is nothing to give back.
constexpr std::chrono::milliseconds trimInterval{250};

// How many connections the host can serve now; read at each Open, so that a
// limit changed from outside (prlimit) counts at once.
std::size_t connectionCapacity() {
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return AppServiceHost::maximumConnections;
    const rlim_t margin =
        std::min<rlim_t>(AppServiceHost::descriptorMargin, descriptors.rlim_cur / 2);
    return static_cast<std::size_t>(
        std::min<rlim_t>(descriptors.rlim_cur - margin, AppServiceHost::maximumConnections));
}

std::size_t clientConnectionLimit() {
    return std::max<std::size_t>(1, connectionCapacity() / AppServiceHost::clientConnectionShare);
}

// The process that called Open, as the bus daemon knows it: the client
// whose connections share one budget. 0 when the bus cannot say. (The
// daemon is asked, not the message's credentials: a host in a PID
// namespace of its own sees no pid there, and sd-bus aborts on that.)
std::uint64_t callerProcess(sd_bus_message* call) {
    sd_bus_message* reply = nullptr;
    std::uint32_t pid = 0;
    const char* sender = sd_bus_message_get_sender(call);
    if (sender != nullptr &&
        sd_bus_call_method(sd_bus_message_get_bus(call), "org.freedesktop.DBus",
                           "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", nullptr, &reply, "s", sender) >= 0 &&
        sd_bus_message_read(reply, "u", &pid) < 0) {
        pid = 0;
    }
    sd_bus_message_unref(reply);
    return pid;
}

}  // namespace

// The connections being served and their tasks, shared with the pool threads
// that report a connection's end.
class ServedConnections : public std::enable_shared_from_this<ServedConnections> {
public:
    ServedConnections() = default;
    ServedConnections(const ServedConnections&) = delete;
    ServedConnections& operator=(const ServedConnections&) = delete;

    // Readable once a connection has ended since the last drainWakeups.
    int wakeDescriptor() const { return wake_.descriptor(); }
    void drainWakeups() { wake_.drain(); }

    // Keeps both until the connection ends.
    void add(const AppServiceConnection& connection, com_ptr<BackgroundTaskInstance> task,
             std::uint64_t client) {
        std::uint64_t id = 0;
        {
            Platform::MutexLock lock(mutex_);
            id = ++lastId_;
            served_.emplace(id, Served{connection, std::move(task), client});
            ++ofClient_[client];
        }
        connection.whenEnded([weak = weak_from_this(), id] {
            if (const auto self = weak.lock()) self->forget(id);
        });
    }

    std::size_t count() const {
        Platform::MutexLock lock(mutex_);
        return served_.size();
    }

    std::size_t countOf(std::uint64_t client) const {
        Platform::MutexLock lock(mutex_);
        const auto found = ofClient_.find(client);
        return found == ofClient_.end() ? 0 : found->second;
    }

    void cancelAll() {
        for (const Served& served : snapshot()) {
            served.task->Cancel(BackgroundTaskCancellationReason::Terminating);
        }
    }

    void closeAll() {
        for (const Served& served : snapshot()) served.connection.Close();
    }

private:
    struct Served {
        AppServiceConnection connection{nullptr};
        com_ptr<BackgroundTaskInstance> task;
        std::uint64_t client = 0;
    };

    std::vector<Served> snapshot() const {
        Platform::MutexLock lock(mutex_);
        std::vector<Served> all;
        for (const auto& [id, served] : served_) all.push_back(served);
        return all;
    }

    void forget(std::uint64_t id) {
        Served gone;  // let go outside the lock
        Platform::MutexLock lock(mutex_);
        const auto found = served_.find(id);
        if (found == served_.end()) return;
        gone = std::move(found->second);
        served_.erase(found);
        if (--ofClient_[gone.client] == 0) ofClient_.erase(gone.client);
        // Inside the lock: once the loop sees the count at zero, no thread
        // touches this object any more.
        wake_.signal();
    }

    Posix::WakeUp wake_;
    mutable Platform::Mutex mutex_;
    std::map<std::uint64_t, Served> served_ QV_GUARDED_BY(mutex_);
    std::map<std::uint64_t, std::size_t> ofClient_ QV_GUARDED_BY(mutex_);
    std::uint64_t lastId_ QV_GUARDED_BY(mutex_) = 0;
};

AppServiceHost::AppServiceHost(const HostOptions& options, const ServiceLibrary& library,
                               sd_bus* bus)
    : options_(options),
      library_(library),
      bus_(bus),
      served_(std::make_shared<ServedConnections>()) {}

AppServiceHost::~AppServiceHost() {
    sd_event_source_unref(trimTimer_);
    sd_event_source_unref(idleTimer_);
    sd_bus_detach_event(bus_);
    sd_bus_flush_close_unref(bus_);
    sd_event_unref(event_);
}

int AppServiceHost::run() {
    // The counters change with every request: readers ask, no signal says.
    constexpr auto fixed = SD_BUS_VTABLE_PROPERTY_CONST;
    constexpr auto counter = 0;
    constexpr auto property = &AppServiceHost::onProperty;
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Open", "s", "h", &AppServiceHost::onOpen, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_PROPERTY("Version", "s", property, 0, fixed),
        SD_BUS_PROPERTY("ProcessId", "u", property, 0, fixed),
        SD_BUS_PROPERTY("StartedAt", "t", property, 0, fixed),  // microseconds since the epoch
        SD_BUS_PROPERTY("Connections", "u", property, 0, counter),
        SD_BUS_PROPERTY("ConnectionsPeak", "u", property, 0, counter),
        SD_BUS_PROPERTY("ConnectionsRefused", "t", property, 0, counter),
        SD_BUS_PROPERTY("Requests", "a{st}", property, 0, counter),  // by command
        SD_BUS_PROPERTY("RequestsFailed", "t", property, 0, counter),
        SD_BUS_PROPERTY("PeersCutOff", "t", property, 0, counter),
        SD_BUS_PROPERTY("BytesReceived", "t", property, 0, counter),
        SD_BUS_PROPERTY("BytesSent", "t", property, 0, counter),
        SD_BUS_PROPERTY("FrameMemoryInUse", "t", property, 0, counter),
        SD_BUS_PROPERTY("FrameMemoryCeiling", "t", property, 0, fixed),
        SD_BUS_VTABLE_END,
    };

    const auto check = [](int result, const char* step) {
        if (result < 0) throw std::system_error(-result, std::generic_category(), step);
    };
    check(sd_event_new(&event_), "sd_event_new");
    check(sd_bus_attach_event(bus_, event_, SD_EVENT_PRIORITY_NORMAL), "sd_bus_attach_event");
    check(sd_bus_set_exit_on_disconnect(bus_, 1), "sd_bus_set_exit_on_disconnect");
    // Registered before the name is asked for: the bus delivers the call
    // that activated us as soon as we own the name.
    check(sd_bus_add_object_vtable(bus_, nullptr, AppServiceBus::objectPath,
                                   AppServiceBus::interfaceName, vtable, this),
          "sd_bus_add_object_vtable");
    for (const int signal : {SIGTERM, SIGINT}) {
        check(sd_event_add_signal(event_, nullptr, signal, &AppServiceHost::onSignal, this),
              "sd_event_add_signal");
    }
    check(sd_event_add_io(event_, nullptr, served_->wakeDescriptor(), EPOLLIN,
                          &AppServiceHost::onConnectionEnded, this),
          "sd_event_add_io");
    check(sd_event_add_time_relative(event_, &idleTimer_, CLOCK_MONOTONIC,
                                     microseconds(options_.idleExit), 1000,
                                     &AppServiceHost::onIdleTimer, this),
          "sd_event_add_time_relative");
    check(sd_event_add_time_relative(event_, &trimTimer_, CLOCK_MONOTONIC,
                                     microseconds(trimInterval), 50'000,
                                     &AppServiceHost::onTrimTimer, this),
          "sd_event_add_time_relative");
    check(sd_event_source_set_enabled(trimTimer_, SD_EVENT_ON), "sd_event_source_set_enabled");

    if (const int taken = sd_bus_request_name(bus_, options_.packageFamilyName.c_str(), 0);
        taken < 0) {
        logFailure("cannot own the bus name " + options_.packageFamilyName + ": " +
                   std::strerror(-taken));
        return 1;
    }
    int status = sd_event_loop(event_);
    if (!nameReleased_) {
        // The loop ended because the bus went away.
        logFailure("lost the session bus; ending every connection");
        endEverything();
        status = 1;
    }
    awaitUnload();
    return status;
}

int AppServiceHost::onOpen(sd_bus_message* call, void* self, sd_bus_error* error) {
    return static_cast<AppServiceHost*>(self)->open(call, error);
}

int AppServiceHost::onProperty(sd_bus*, const char*, const char*, const char* property,
                               sd_bus_message* reply, void* self, sd_bus_error*) {
    auto& host = *static_cast<AppServiceHost*>(self);
    host.status_.connectionsNow(host.served_->count());
    return host.status_.appendProperty(property, reply);
}

int AppServiceHost::open(sd_bus_message* call, sd_bus_error* error) {
    const char* name = nullptr;
    if (const int read = sd_bus_message_read(call, "s", &name); read < 0) return read;
    if (options_.appServiceName != name) {
        return sd_bus_error_set(error, AppServiceBus::appServiceUnavailableError,
                                "This package declares no app service of that name.");
    }
    const std::uint64_t client = callerProcess(call);
    if (served_->count() >= connectionCapacity() ||
        (client != 0 && served_->countOf(client) >= clientConnectionLimit())) {
        status_.connectionRefused();
        return sd_bus_error_set(error, AppServiceBus::connectionLimitError,
                                "The app service serves all the connections it can; "
                                "try again when one has closed.");
    }
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return sd_bus_error_set_errno(error, errno);
    }
    Posix::FileDescriptor served(ends[0]);
    // The reply carries a copy. If it cannot be sent, the client's end goes
    // here, and the served end sees its stream end: its task is cancelled
    // like any other.
    const Posix::FileDescriptor clients(ends[1]);
    try {
        serve(std::move(served), client);
    } catch (const HResultError& failure) {
        return sd_bus_error_setf(
            error, SD_BUS_ERROR_FAILED, "The app service could not be started: 0x%08X %s",
            static_cast<unsigned>(failure.code()), utf16ToUtf8(failure.message()).c_str());
    } catch (const std::exception& failure) {
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED,
                                 "The app service could not be started: %s", failure.what());
    }
    status_.connectionOpened(served_->count());
    const int answered = sd_bus_reply_method_return(call, "h", clients.get());
    if (answered < 0) {
        logFailure(std::string("cannot answer an Open call: ") + std::strerror(-answered));
    }
    return 1;
}

// The task runs before the client gets its end, so that no request can
// arrive before the service listens.
void AppServiceHost::serve(Posix::FileDescriptor socket, std::uint64_t client) {
    const AppServiceConnection connection =
        AppServiceConnection::fromSocket(socket.release(), client);
    const auto task = BackgroundTaskInstance::forConnection(connection);
    served_->add(connection, task, client);
    try {
        task->run(*library_.activate(hstring(utf8ToUtf16(options_.entryPoint))));
    } catch (...) {
        connection.Close();
        throw;
    }
}

int AppServiceHost::onConnectionEnded(sd_event_source*, int, std::uint32_t, void* self) {
    auto& host = *static_cast<AppServiceHost*>(self);
    host.served_->drainWakeups();
    if (host.served_->count() > 0) return 0;
    if (host.nameReleased_) {
        sd_event_exit(host.event_, 0);
    } else {
        host.armIdleTimer(microseconds(host.options_.idleExit));
    }
    return 0;
}

int AppServiceHost::onTrimTimer(sd_event_source* timer, std::uint64_t, void* self) {
    auto& host = *static_cast<AppServiceHost*>(self);
    ::malloc_trim(0);
    host.status_.connectionsNow(host.served_->count());
    host.status_.notifyServiceManager();
    return sd_event_source_set_time_relative(timer, microseconds(trimInterval));
}

int AppServiceHost::onIdleTimer(sd_event_source*, std::uint64_t, void* self) {
    auto& host = *static_cast<AppServiceHost*>(self);
    // A connection is open: its end arms the timer again.
    if (host.served_->count() > 0) return 0;
    if (!host.library_.canUnloadNow()) {
        host.armIdleTimer(microseconds(unloadRetry));
        return 0;
    }
    host.exitWhenIdle();
    return 0;
}

int AppServiceHost::onSignal(sd_event_source*, const struct signalfd_siginfo* signal,
                             void* self) {
    auto& host = *static_cast<AppServiceHost*>(self);
    logInfo(std::string("stopping on ") + (signal->ssi_signo == SIGINT ? "SIGINT" : "SIGTERM") +
            ": ending " + std::to_string(host.served_->count()) + " connections");
    host.status_.notifyStopping();
    host.releaseName();
    host.endEverything();
    sd_event_exit(host.event_, 0);
    return 0;
}

void AppServiceHost::armIdleTimer(std::uint64_t afterMicroseconds) {
    sd_event_source_set_time_relative(idleTimer_, afterMicroseconds);
    sd_event_source_set_enabled(idleTimer_, SD_EVENT_ONESHOT);
}

// The name goes first, so that a call sent from now on starts a new host
// instead of waiting on this one. Calls that reached us before are served.
void AppServiceHost::exitWhenIdle() {
    char idle[32];
    std::snprintf(idle, sizeof idle, "%g", static_cast<double>(options_.idleExit.count()) / 1000);
    logInfo(std::string("exiting: no connection for ") + idle + " s");
    status_.notifyStopping();
    releaseName();
    while (sd_bus_process(bus_, nullptr) > 0) {
    }
    if (served_->count() == 0) sd_event_exit(event_, 0);
}

void AppServiceHost::releaseName() {
    if (nameReleased_) return;
    nameReleased_ = true;
    if (const int released = sd_bus_release_name(bus_, options_.packageFamilyName.c_str());
        released < 0 && sd_bus_is_open(bus_) > 0) {
        logFailure(std::string("cannot release the bus name: ") + std::strerror(-released));
    }
}

void AppServiceHost::endEverything() {
    served_->cancelAll();
    served_->closeAll();
}

// Services let go of the library on pool threads after their connections
// end; leaving before they have would tear the process down under them.
void AppServiceHost::awaitUnload() {
    const auto deadline = std::chrono::steady_clock::now() + unloadPatience;
    while (served_->count() > 0 || !library_.canUnloadNow()) {
        if (std::chrono::steady_clock::now() > deadline) {
            logFailure("services were still alive at exit");
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace Quorvendale::AppHost
