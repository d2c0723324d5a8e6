// What RequestReceived hands its handlers: the request, and a way to answer it
// after the handler has returned.
#pragma once

#include <memory>

#include "Platform/AppService/AppServiceDeferral.h"
#include "Platform/AppService/AppServiceRequest.h"

namespace Quorvendale::Platform {

namespace Details {
struct IncomingRequest;
}  // namespace Details

class QV_PLATFORM_API AppServiceRequestReceivedEventArgs {
public:
    explicit AppServiceRequestReceivedEventArgs(std::shared_ptr<Details::IncomingRequest> request)
        : request_(std::move(request)) {}
    AppServiceRequest Request() const { return AppServiceRequest(request_); }
    AppServiceDeferral GetDeferral() const;

private:
    std::shared_ptr<Details::IncomingRequest> request_;
};

}  // namespace Quorvendale::Platform
