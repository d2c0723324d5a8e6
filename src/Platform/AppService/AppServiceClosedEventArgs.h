// What ServiceClosed tells its handlers.
#pragma once

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

enum class AppServiceClosedStatus {
    Completed = 0,
    Canceled = 1,
    ResourceLimitsExceeded = 2,
    Unknown = 3
};

class QV_PLATFORM_API AppServiceClosedEventArgs {
public:
    explicit AppServiceClosedEventArgs(AppServiceClosedStatus status) : status_(status) {}
    AppServiceClosedStatus Status() const noexcept { return status_; }

private:
    AppServiceClosedStatus status_;
};

}  // namespace Quorvendale::Platform
