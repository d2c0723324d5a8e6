#include "Platform/AppService/ConnectionObject.h"

#include <exception>

#include "Platform/AppService/AppServiceBus.h"
#include "Platform/Foundation/AsyncCompletion.h"
#include "Platform/Text/TextConversion.h"

namespace Quorvendale::Platform::Details {
namespace {

template <class T>
IAsyncOperation<T> failedOperation(HRESULT code) {
    AsyncCompletion<T> completion;
    completion.Fail(HResultError(code));
    return completion.operation();
}

// The loop of the connections this process makes without naming one:
// started on first use and never stopped, since channels may still use it
// while the process exits.
std::shared_ptr<ChannelLoop> processLoop() {
    static const std::shared_ptr<ChannelLoop>* loop =
        new std::shared_ptr<ChannelLoop>(ChannelLoop::start({}));
    return *loop;
}

}  // namespace

ConnectionObject::~ConnectionObject() {
    // No lock: nobody else can reach an object that is being destroyed.
    if (channel_) channel_->close(AppServiceChannel::EndedBy::Owner);
}

std::shared_ptr<ConnectionObject> ConnectionObject::overSocket(int descriptor, ClientId client,
                                                               std::shared_ptr<ChannelLoop> loop) {
    auto object = std::make_shared<ConnectionObject>();
    object->attach(Posix::FileDescriptor(descriptor), client, std::move(loop));
    return object;
}

void ConnectionObject::appServiceName(const hstring& name) {
    MutexLock lock(mutex_);
    appServiceName_ = name;
}

void ConnectionObject::packageFamilyName(const hstring& name) {
    MutexLock lock(mutex_);
    packageFamilyName_ = name;
}

IAsyncOperation<AppServiceConnectionStatus> ConnectionObject::open() {
    hstring packageFamilyName;
    hstring appServiceName;
    {
        MutexLock lock(mutex_);
        if (state_ != State::Unopened) {
            return failedOperation<AppServiceConnectionStatus>(E_ILLEGAL_METHOD_CALL);
        }
        state_ = State::Opening;
        packageFamilyName = packageFamilyName_;
        appServiceName = appServiceName_;
    }
    // The operation holds the object: a connection dropped while it opens
    // is closed once the open has finished.
    return runAsync<AppServiceConnectionStatus>(
        [self = shared_from_this(), packageFamilyName, appServiceName] {
            return self->openOnBus(packageFamilyName, appServiceName);
        });
}

AppServiceConnectionStatus ConnectionObject::openOnBus(const hstring& packageFamilyName,
                                                       const hstring& appServiceName) {
    // Nothing may leave as an exception: a caller that reconnects whenever an
    // open throws would otherwise reconnect without end.
    AppServiceConnectionStatus status = AppServiceConnectionStatus::Unknown;
    try {
        AppServiceBus::OpenedAppService opened =
            AppServiceBus::open(utf16ToUtf8(packageFamilyName), utf16ToUtf8(appServiceName));
        status = opened.status;
        if (status == AppServiceConnectionStatus::Success) {
            // Closed while it opened: the connection stays closed, the socket goes.
            return attach(std::move(opened.socket), 0, nullptr) ? status : AppServiceConnectionStatus::Unknown;
        }
    } catch (...) {
        status = AppServiceConnectionStatus::Unknown;
    }
    MutexLock lock(mutex_);
    if (state_ == State::Opening) state_ = State::Unopened;
    return status;
}

bool ConnectionObject::attach(Posix::FileDescriptor socket, ClientId client,
                              std::shared_ptr<ChannelLoop> loop) {
    MutexLock lock(mutex_);
    if (state_ == State::Closed) return false;
    channel_ = AppServiceChannel::open(loop ? std::move(loop) : processLoop(), std::move(socket),
                                       weak_from_this(), client);
    state_ = State::Open;
    return true;
}

std::shared_ptr<AppServiceChannel> ConnectionObject::channel() const {
    MutexLock lock(mutex_);
    if (!channel_) throw HResultError(E_ILLEGAL_METHOD_CALL);
    return channel_;
}

void ConnectionObject::close() {
    std::shared_ptr<AppServiceChannel> channel;
    {
        MutexLock lock(mutex_);
        state_ = State::Closed;
        channel = channel_;
    }
    if (channel) channel->close(AppServiceChannel::EndedBy::Owner);
}

}  // namespace Quorvendale::Platform::Details
