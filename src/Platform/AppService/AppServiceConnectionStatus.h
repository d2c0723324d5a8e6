#pragma once

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

// How an OpenAsync ended. The numbers are the platform's.
enum class AppServiceConnectionStatus {
    Success = 0,
    AppNotInstalled = 1,        // no package of that family name provides a service
    AppUnavailable = 2,         // its host could not be started or reached
    AppServiceUnavailable = 3,  // the host declares no app service of that name
    Unknown = 4,
    RemoteSystemUnavailable = 5,
    RemoteSystemNotSupportedByApp = 6,
    NotAuthorized = 7,
    AuthenticationError = 8,
    NetworkNotAvailable = 9,
    DisabledByPolicy = 10,
    WebServiceUnavailable = 11,
};

}  // namespace Quorvendale::Platform
