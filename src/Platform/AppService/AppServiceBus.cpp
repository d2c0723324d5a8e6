#include "Platform/AppService/AppServiceBus.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform::AppServiceBus {

sd_bus* connect(const std::string& address) noexcept {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return nullptr;
    const bool unixSocket = std::string_view(address).starts_with("unix:");
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_negotiate_fds(bus, 1) < 0 || (!unixSocket && sd_bus_set_anonymous(bus, 1) < 0) ||
        sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

namespace {

// Above the private buses' service start time-out, so that a host that never
// takes its name is reported by the bus (TimedOut) rather than by us.
constexpr std::uint64_t openTimeoutMicroseconds = 30'000'000;

struct BusUnref {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;

struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

struct Error {
    Error() = default;
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    ~Error() { sd_bus_error_free(&error); }
    sd_bus_error error{};  // SD_BUS_ERROR_NULL, without its C compound literal
};

// Bus connections between opens, so that an open to a running host costs one
// call, not a connection and its authentication too. A connection is used by
// one thread at a time: it is taken out of the list for the call.
class IdleBuses {
public:
    // A kept connection to the address, or a new one (null if none can be
    // made); `kept` tells which.
    Bus take(const std::string& address, bool& kept) {
        {
            MutexLock lock(mutex_);
            for (auto idle = idle_.begin(); idle != idle_.end(); ++idle) {
                if (idle->first != address) continue;
                Bus bus = std::move(idle->second);
                idle_.erase(idle);
                kept = true;
                return bus;
            }
        }
        kept = false;
        return Bus(connect(address));
    }

    void giveBack(const std::string& address, Bus bus) {
        // Whatever arrived unasked (the bus's NameAcquired) is dealt with now,
        // so that nothing piles up in a kept connection.
        while (sd_bus_process(bus.get(), nullptr) > 0) {
        }
        if (sd_bus_is_open(bus.get()) <= 0) return;
        MutexLock lock(mutex_);
        if (idle_.size() < maximumIdle) idle_.emplace_back(address, std::move(bus));
    }

private:
    static constexpr std::size_t maximumIdle = 4;

    Mutex mutex_;
    std::vector<std::pair<std::string, Bus>> idle_ QV_GUARDED_BY(mutex_);
};

// Never destroyed: an open may still be running on a pool thread at exit.
IdleBuses& idleBuses() {
    static auto* buses = new IdleBuses;
    return *buses;
}

// The statuses of the bus's error replies; a name ending in '.' stands for
// every name it begins.
struct ErrorStatus {
    std::string_view name;
    AppServiceConnectionStatus status;
};
constexpr ErrorStatus errorStatuses[] = {
    {"org.freedesktop.DBus.Error.ServiceUnknown", AppServiceConnectionStatus::AppNotInstalled},
    {"org.freedesktop.DBus.Error.Spawn.", AppServiceConnectionStatus::AppUnavailable},
    {"org.freedesktop.DBus.Error.TimedOut", AppServiceConnectionStatus::AppUnavailable},
    {"org.freedesktop.DBus.Error.NoReply", AppServiceConnectionStatus::AppUnavailable},
    {"org.freedesktop.DBus.Error.Timeout", AppServiceConnectionStatus::AppUnavailable},
    {appServiceUnavailableError, AppServiceConnectionStatus::AppServiceUnavailable},
    {connectionLimitError, AppServiceConnectionStatus::AppUnavailable},
};

AppServiceConnectionStatus statusOf(int result, const sd_bus_error& error) {
    // Our own time-out ends the call before any reply.
    if (result == -ETIMEDOUT) return AppServiceConnectionStatus::AppUnavailable;
    if (sd_bus_error_is_set(&error) <= 0) return AppServiceConnectionStatus::Unknown;
    const std::string_view name = error.name;
    for (const ErrorStatus& known : errorStatuses) {
        const bool matches =
            known.name.ends_with('.') ? name.starts_with(known.name) : name == known.name;
        if (matches) return known.status;
    }
    return AppServiceConnectionStatus::Unknown;
}

// The bus's answer when the name's owner went away with the call unanswered:
// a host that died or was killed as the call reached it.
bool ownerLeftWithoutReplying(const sd_bus_error& error) {
    return sd_bus_error_has_name(&error, "org.freedesktop.DBus.Error.NoReply") > 0 &&
           error.message != nullptr && std::string_view(error.message).contains("disconnected");
}

// One Open call. Leaves `bus` closed when the connection itself failed;
// `ownerLeft` says whether the name's owner left without replying.
OpenedAppService callOpen(sd_bus* bus, const std::string& packageFamilyName,
                          const std::string& appServiceName, bool& ownerLeft) {
    // A connection that cannot carry the socket would wait out the whole
    // time-out before failing.
    const int canSendSocket = sd_bus_can_send(bus, SD_BUS_TYPE_UNIX_FD);
    if (canSendSocket < 0) return {AppServiceConnectionStatus::AppUnavailable};
    if (canSendSocket == 0) return {AppServiceConnectionStatus::Unknown};

    sd_bus_message* raw = nullptr;
    const int made = sd_bus_message_new_method_call(bus, &raw, packageFamilyName.c_str(),
                                                    objectPath, interfaceName, openMethod);
    // A family name that is no bus name cannot belong to an installed service.
    if (made == -EINVAL) return {AppServiceConnectionStatus::AppNotInstalled};
    if (made < 0) return {AppServiceConnectionStatus::Unknown};
    const Message call(raw);
    if (sd_bus_message_append(call.get(), "s", appServiceName.c_str()) < 0) {
        return {AppServiceConnectionStatus::Unknown};
    }

    Error error;
    raw = nullptr;
    const int called = sd_bus_call(bus, call.get(), openTimeoutMicroseconds, &error.error, &raw);
    const Message reply(raw);
    if (called < 0) {
        if (sd_bus_is_open(bus) <= 0) return {AppServiceConnectionStatus::AppUnavailable};
        ownerLeft = ownerLeftWithoutReplying(error.error);
        return {statusOf(called, error.error)};
    }
    int socket = -1;
    if (sd_bus_message_read(reply.get(), "h", &socket) < 0) {
        return {AppServiceConnectionStatus::Unknown};
    }
    // The message owns the descriptor it carries; the connection gets its own.
    Posix::FileDescriptor own(::fcntl(socket, F_DUPFD_CLOEXEC, 3));
    if (!own.valid()) return {AppServiceConnectionStatus::Unknown};
    return {AppServiceConnectionStatus::Success, std::move(own)};
}

}  // namespace

OpenedAppService open(const std::string& packageFamilyName, const std::string& appServiceName) {
    const std::string address = sessionBusAddress();
    if (address.empty()) return {AppServiceConnectionStatus::AppUnavailable};
    // A kept connection may have outlived its bus (a restarted daemon at the
    // same address): its failure earns one more try on a new connection. A
    // host that dies as the call reaches it still owned the name when the
    // call was sent: once, the call goes again, and the bus starts another.
    bool ownerLeftBefore = false;
    for (;;) {
        bool kept = false;
        Bus bus = idleBuses().take(address, kept);
        if (!bus) return {AppServiceConnectionStatus::AppUnavailable};
        bool ownerLeft = false;
        OpenedAppService opened = callOpen(bus.get(), packageFamilyName, appServiceName, ownerLeft);
        const bool connectionFailed = sd_bus_is_open(bus.get()) <= 0;
        if (connectionFailed && kept) continue;
        if (!connectionFailed) idleBuses().giveBack(address, std::move(bus));
        if (ownerLeft && !std::exchange(ownerLeftBefore, true)) continue;
        return opened;
    }
}

}  // namespace Quorvendale::Platform::AppServiceBus
