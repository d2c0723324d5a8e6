// How app services meet on the session bus. A package that provides app
// services is a D-Bus activatable service whose well-known name is its
// package family name; its host exports one object with one method,
//
//   Open(s appServiceName) -> h socket
//
// which answers one end of a new socketpair whose other end the host serves,
// or the error appServiceUnavailableError for a name it does not declare, or
// connectionLimitError while it serves all the connections it can.
#pragma once

#include <cstdlib>
#include <string>

#include "Platform/AppService/AppServiceConnectionStatus.h"
#include "Platform/Foundation/PlatformExport.h"
#include "Posix/FileDescriptor.h"

typedef struct sd_bus sd_bus;

namespace Quorvendale::Platform::AppServiceBus {

inline constexpr const char* objectPath = "/org/quorvendale/AppServiceHost";
inline constexpr const char* interfaceName = "org.quorvendale.AppServiceHost";
inline constexpr const char* openMethod = "Open";
inline constexpr const char* appServiceUnavailableError =
    "org.quorvendale.AppServiceHost.Error.AppServiceUnavailable";
inline constexpr const char* connectionLimitError =
    "org.quorvendale.AppServiceHost.Error.ConnectionLimit";

// The session bus's address: DBUS_SESSION_BUS_ADDRESS, else the socket
// "bus" in XDG_RUNTIME_DIR; empty when neither is set. Written here, whole,
// so that a program that only loads the storage library (qvstore, telling
// why no bus answers) applies the very rule the library does.
inline std::string sessionBusAddress() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) {
        return address;
    }
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        return std::string("unix:path=") + runtime + "/bus";
    }
    return {};
}

// A new bus-client connection to the address, started (its authentication
// finishes with the first call), or null. Over a transport other than a
// Unix socket the daemon cannot see who we are, so it asks to be let in
// anonymously. The caller owns the connection.
QV_PLATFORM_API sd_bus* connect(const std::string& address) noexcept;

struct OpenedAppService {
    AppServiceConnectionStatus status;
    Posix::FileDescriptor socket{};  // with Success: the connected socket
};

// Asks the package's host, started by the bus if need be, for a socket to
// the app service. Blocks for at most the call's time-out and throws nothing
// but std::bad_alloc. Errors map to statuses:
//
//   no bus to connect to, the bus went away       AppUnavailable
//   org.freedesktop.DBus.Error.ServiceUnknown     AppNotInstalled (no service file)
//   ...Error.Spawn.*, TimedOut, NoReply, Timeout  AppUnavailable (the host did not start or answer)
//   the host's connectionLimitError               AppUnavailable (for now; it may open later)
//   the host's appServiceUnavailableError         AppServiceUnavailable
//   a bus that cannot pass a socket, and any other error    Unknown
OpenedAppService open(const std::string& packageFamilyName, const std::string& appServiceName);

}  // namespace Quorvendale::Platform::AppServiceBus
