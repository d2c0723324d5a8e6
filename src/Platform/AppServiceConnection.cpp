#include "AppServiceConnection.h"

#include <atomic>

#include "AppServiceChannel.h"

namespace Quorvendale::Platform {

struct AppServiceDeferral::State {
    explicit State(std::shared_ptr<Details::IncomingRequest> held) : request(std::move(held)) {
        request->hold();
    }
    // A deferral dropped without Complete (its handler failed) still lets the
    // request go, so that the requester is not left waiting.
    ~State() { complete(); }
    void complete() {
        if (!completed.exchange(true)) request->release();
    }
    std::shared_ptr<Details::IncomingRequest> request;
    std::atomic<bool> completed{false};
};

void AppServiceDeferral::Complete() const { state_->complete(); }

AppServiceDeferral AppServiceRequestReceivedEventArgs::GetDeferral() const {
    return AppServiceDeferral(std::make_shared<AppServiceDeferral::State>(request_));
}

ValueSet AppServiceRequest::Message() const { return request_->message; }

IAsyncOperation<AppServiceResponseStatus> AppServiceRequest::SendResponseAsync(
    const ValueSet& message) const {
    AsyncCompletion<AppServiceResponseStatus> completion;
    completion.Complete(request_->respond(message));
    return completion.operation();
}

AppServiceConnection AppServiceConnection::fromSocket(int descriptor) {
    return AppServiceConnection(Details::AppServiceChannel::open(descriptor));
}

Details::AppServiceChannel& AppServiceConnection::channel() const {
    if (!channel_) throw HResultError(E_ILLEGAL_METHOD_CALL);
    return *channel_;
}

IAsyncOperation<AppServiceResponse> AppServiceConnection::SendMessageAsync(
    const ValueSet& message) const {
    return channel().sendRequest(message);
}

event_token AppServiceConnection::RequestReceived(RequestReceivedHandler handler) const {
    return channel().requestReceived.add(std::move(handler));
}

void AppServiceConnection::RequestReceived(event_token token) const {
    channel().requestReceived.remove(token);
}

event_token AppServiceConnection::ServiceClosed(ServiceClosedHandler handler) const {
    return channel().serviceClosed.add(std::move(handler));
}

void AppServiceConnection::ServiceClosed(event_token token) const {
    channel().serviceClosed.remove(token);
}

void AppServiceConnection::Close() const { channel().close(false); }

void AppServiceConnection::whenEnded(std::function<void()> handler) const {
    channel().whenEnded(std::move(handler));
}

}  // namespace Quorvendale::Platform
