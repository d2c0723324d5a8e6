// How app services meet on the session bus. A package that provides app
// services is a D-Bus activatable service whose well-known name is its
// package family name; its host exports one object with one method,
//
//   Open(s appServiceName) -> h socket
//
// which answers one end of a new socketpair whose other end the host serves,
// or the error appServiceUnavailableError for a name it does not declare.
#pragma once

#include <string>

#include "PlatformExport.h"

namespace Quorvendale::Platform::AppServiceBus {

inline constexpr const char* objectPath = "/org/quorvendale/AppServiceHost";
inline constexpr const char* interfaceName = "org.quorvendale.AppServiceHost";
inline constexpr const char* openMethod = "Open";
inline constexpr const char* appServiceUnavailableError =
    "org.quorvendale.AppServiceHost.Error.AppServiceUnavailable";

// The session bus's address: DBUS_SESSION_BUS_ADDRESS, else the socket
// "bus" in XDG_RUNTIME_DIR; empty when neither is set.
QV_PLATFORM_API std::string sessionBusAddress();

}  // namespace Quorvendale::Platform::AppServiceBus
