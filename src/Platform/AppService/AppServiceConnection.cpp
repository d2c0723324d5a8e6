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

AppServiceConnection::AppServiceConnection()
    : object_(std::make_shared<Details::ConnectionObject>()) {}

AppServiceConnection AppServiceConnection::fromSocket(int descriptor) {
    return AppServiceConnection(Details::ConnectionObject::overSocket(descriptor));
}

Details::ConnectionObject& AppServiceConnection::object() const {
    if (!object_) throw HResultError(E_POINTER);
    return *object_;
}

hstring AppServiceConnection::AppServiceName() const { return object().appServiceName(); }

void AppServiceConnection::AppServiceName(const hstring& name) const {
    object().appServiceName(name);
}

hstring AppServiceConnection::PackageFamilyName() const { return object().packageFamilyName(); }

void AppServiceConnection::PackageFamilyName(const hstring& name) const {
    object().packageFamilyName(name);
}

IAsyncOperation<AppServiceConnectionStatus> AppServiceConnection::OpenAsync() const {
    return object().open();
}

IAsyncOperation<AppServiceResponse> AppServiceConnection::SendMessageAsync(
    const ValueSet& message) const {
    return object().channel()->sendRequest(message);
}

event_token AppServiceConnection::RequestReceived(RequestReceivedHandler handler) const {
    return object().requestReceived.add(std::move(handler));
}

void AppServiceConnection::RequestReceived(event_token token) const {
    object().requestReceived.remove(token);
}

event_token AppServiceConnection::ServiceClosed(ServiceClosedHandler handler) const {
    return object().serviceClosed.add(std::move(handler));
}

void AppServiceConnection::ServiceClosed(event_token token) const {
    object().serviceClosed.remove(token);
}

void AppServiceConnection::Close() const { object().close(); }

void AppServiceConnection::whenEnded(std::function<void()> handler) const {
    object().channel()->whenEnded(std::move(handler));
}

}  // namespace Quorvendale::Platform
