// The answer to a request sent on an app-service connection.
#pragma once

#include <utility>

#include "Platform/Foundation/ValueSet.h"

namespace Quorvendale::Platform {

enum class AppServiceResponseStatus {
    Success = 0,
    Failure = 1,
    ResourceLimitsExceeded = 2,
    Unknown = 3,
    RemoteSystemUnavailable = 4,
    MessageSizeTooLarge = 5,
};

class QV_PLATFORM_API AppServiceResponse {
public:
    AppServiceResponse(AppServiceResponseStatus status, ValueSet message)
        : status_(status), message_(std::move(message)) {}
    AppServiceResponseStatus Status() const noexcept { return status_; }
    // The answer's message; empty unless Status() is Success.
    ValueSet Message() const { return message_; }

private:
    AppServiceResponseStatus status_;
    ValueSet message_;
};

}  // namespace Quorvendale::Platform
