// HostStatus: what the host tells its administrator about itself. Its
// counters are D-Bus properties of its object (busctl --user introspect
// shows them with their types; qvstore status reads them), and a one-line
// summary goes to the service manager where one started the host
// (systemctl --user status shows it).
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Posix/FileDescriptor.h"

namespace Quorvendale::AppHost {

class HostStatus {
public:
    // Opens the service manager's notification socket, if NOTIFY_SOCKET
    // names one: before the host confines itself, after which the socket's
    // path can no longer be reached.
    HostStatus();

    void connectionOpened(std::size_t connectionsNow);
    void connectionRefused();
    void connectionsNow(std::size_t count) { connectionsNow_ = count; }

    // Sends the summary to the service manager when it has changed.
    void notifyServiceManager();
    // Tells the service manager that the host is on its way out.
    void notifyStopping();

    // "12 connections, 3,456 requests"
    std::string summary() const;

    // Appends the value of one of the properties the host's object
    // publishes (AppServiceHost's vtable lists them with their types);
    // -ENOENT for any other name.
    int appendProperty(std::string_view property, sd_bus_message* reply) const;

private:
    void notify(const std::string& message) const;

    std::uint64_t startedAt_;  // microseconds since the epoch, as systemd gives times
    std::size_t connectionsNow_ = 0;
    std::size_t connectionsPeak_ = 0;
    std::uint64_t connectionsRefused_ = 0;
    Posix::FileDescriptor notifySocket_;
    std::string lastNotified_;
};

}  // namespace Quorvendale::AppHost
