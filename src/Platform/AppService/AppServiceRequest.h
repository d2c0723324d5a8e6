// A request received on an app-service connection, as its handler sees it.
#pragma once

#include <cstdint>
#include <functional>
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

    // This runtime's own, for a service that is about to hold much for the
    // request (a large value read for its answer): runs `then` once `bytes`
    // more fit in the memory share of the request's client, at once if they
    // do now, else on a pool thread when memory has come back. The bytes
    // stay counted until the request goes; the caller holds a deferral
    // meanwhile. More than a client's whole share counts as the share.
    void WhenMemoryFits(std::uint64_t bytes, std::function<void()> then) const;

private:
    friend class AppServiceRequestReceivedEventArgs;
    explicit AppServiceRequest(std::shared_ptr<Details::IncomingRequest> request)
        : request_(std::move(request)) {}
    std::shared_ptr<Details::IncomingRequest> request_;
};

}  // namespace Quorvendale::Platform
