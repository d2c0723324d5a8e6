#include "Platform/AppService/IncomingRequest.h"

namespace Quorvendale::Platform::Details {

AppServiceResponseStatus IncomingRequest::respond(const ValueSet& response) {
    MutexLock lock(mutex_);
    if (answered_) return AppServiceResponseStatus::Failure;
    auto frame =
        AppServiceFrame{AppServiceFrame::Kind::Response, requestId, response}.encode();
    if (!frame) return AppServiceResponseStatus::MessageSizeTooLarge;
    if (!channel->sendAnswer(std::move(*frame))) return AppServiceResponseStatus::Failure;
    answered_ = true;
    return AppServiceResponseStatus::Success;
}

void IncomingRequest::takeHold() { holds_.take(); }

void IncomingRequest::dropHold() {
    if (!holds_.drop()) return;
    MutexLock lock(mutex_);
    if (answered_) return;
    // Nobody will answer any more: tell the requester rather than leave it waiting.
    answered_ = true;
    auto frame =
        AppServiceFrame{AppServiceFrame::Kind::Refusal, requestId, ValueSet()}.encode();
    channel->sendAnswer(std::move(*frame));
}

}  // namespace Quorvendale::Platform::Details
