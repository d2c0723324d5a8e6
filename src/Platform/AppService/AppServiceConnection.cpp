#include "Platform/AppService/AppServiceConnection.h"

#include "Platform/AppService/AppServiceChannel.h"
#include "Platform/AppService/ConnectionObject.h"

namespace Quorvendale::Platform {

AppServiceConnection::AppServiceConnection()
    : object_(std::make_shared<Details::ConnectionObject>()) {}

AppServiceConnection AppServiceConnection::fromSocket(int descriptor, std::uint64_t client,
                                                      std::shared_ptr<Details::ChannelLoop> loop) {
    return AppServiceConnection(
        Details::ConnectionObject::overSocket(descriptor, client, std::move(loop)));
}

Details::ConnectionObject& AppServiceConnection::object() const {
    if (!object_) throw HResultError(E_POINTER);
    return *object_;
}

void AppServiceConnection::AppServiceName(const hstring& name) const {
    object().appServiceName(name);
}

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

event_token AppServiceConnection::ServiceClosed(ServiceClosedHandler handler) const {
    return object().serviceClosed.add(std::move(handler));
}

void AppServiceConnection::Close() const { object().close(); }

void AppServiceConnection::whenEnded(std::function<void()> handler) const {
    object().channel()->whenEnded(std::move(handler));
}

}  // namespace Quorvendale::Platform
