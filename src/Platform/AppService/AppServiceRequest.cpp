#include "Platform/AppService/AppServiceRequest.h"

#include "Platform/AppService/ChannelLoop.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Platform/Foundation/AsyncCompletion.h"

namespace Quorvendale::Platform {

ValueSet AppServiceRequest::Message() const { return request_->message; }

IAsyncOperation<AppServiceResponseStatus> AppServiceRequest::SendResponseAsync(
    const ValueSet& message) const {
    AsyncCompletion<AppServiceResponseStatus> completion;
    completion.Complete(request_->respond(message));
    return completion.operation();
}

void AppServiceRequest::WhenMemoryFits(std::uint64_t bytes, std::function<void()> then) const {
    request_->channel->loop().admit(request_, bytes, std::move(then));
}

}  // namespace Quorvendale::Platform
