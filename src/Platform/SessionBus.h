// The client's side of opening an app service: one Open call on the session
// bus (AppServiceBus.h), its answer turned into a socket or a status.
#pragma once

#include <string>

#include "AppServiceConnection.h"

namespace Quorvendale::Platform::Details {

struct OpenedAppService {
    AppServiceConnectionStatus status;
    int socket = -1;  // with Success: the connected socket, now the caller's
};

// Asks the package's host, started by the bus if need be, for a socket to
// the app service. Blocks for at most the call's time-out and throws nothing
// but std::bad_alloc. Errors map to statuses:
//
//   no bus to connect to, the bus went away       AppUnavailable
//   org.freedesktop.DBus.Error.ServiceUnknown     AppNotInstalled (no service file)
//   ...Error.Spawn.*, TimedOut, NoReply, Timeout  AppUnavailable (the host did not start or answer)
//   the host's appServiceUnavailableError         AppServiceUnavailable
//   a bus that cannot pass a socket, and any other error    Unknown
OpenedAppService openAppService(const std::string& packageFamilyName,
                                const std::string& appServiceName);

}  // namespace Quorvendale::Platform::Details
