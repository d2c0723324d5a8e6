// A request received on an app-service connection, as its handler sees it.
#pragma once

#include <memory>

#include "Platform/AppService/AppServiceResponse.h"
#include "Platform/Foundation/IAsyncOperation.h"
#include "Platform/Foundation/ValueSet.h"

namespace Quorvendale::Platform {

namespace Details {
struct IncomingRequest;
}  // namespace Details

class QV_PLATFORM_API AppServiceRequest {
public:
    ValueSet Message() const;
    // Sends the answer; completes with Success once it is written, Failure if
    // the connection has ended or an answer was already sent, and
    // MessageSizeTooLarge (sending nothing) if it does not fit in a frame.
    IAsyncOperation<AppServiceResponseStatus> SendResponseAsync(const ValueSet& message) const;

private:
    friend class AppServiceRequestReceivedEventArgs;
    explicit AppServiceRequest(std::shared_ptr<Details::IncomingRequest> request)
        : request_(std::move(request)) {}
    std::shared_ptr<Details::IncomingRequest> request_;
};

}  // namespace Quorvendale::Platform
