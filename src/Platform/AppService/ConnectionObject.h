// ConnectionObject: what the copies of one AppServiceConnection share: the
// names it opens, its event handlers, and, once open, its channel. It is the
// channel's one owner: when the last copy goes, it closes the channel.
#pragma once

#include <memory>

#include "Platform/AppService/AppServiceChannel.h"
#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/Foundation/Mutex.h"
#include "Posix/FileDescriptor.h"

namespace Quorvendale::Platform::Details {

class ConnectionObject : public std::enable_shared_from_this<ConnectionObject> {
public:
    ConnectionObject() = default;
    ConnectionObject(const ConnectionObject&) = delete;
    ConnectionObject& operator=(const ConnectionObject&) = delete;
    ~ConnectionObject();

    // An open connection over a connected socket, served by the loop (none:
    // the process's own).
    static std::shared_ptr<ConnectionObject> overSocket(int descriptor, ClientId client,
                                                        std::shared_ptr<ChannelLoop> loop);

    void appServiceName(const hstring& name);
    void packageFamilyName(const hstring& name);

    IAsyncOperation<AppServiceConnectionStatus> open();
    // The open channel; E_ILLEGAL_METHOD_CALL if it was never opened.
    std::shared_ptr<AppServiceChannel> channel() const;
    void close();

    event<const AppServiceConnection&, const AppServiceRequestReceivedEventArgs&> requestReceived;
    event<const AppServiceConnection&, const AppServiceClosedEventArgs&> serviceClosed;

private:
    enum class State { Unopened, Opening, Open, Closed };

    AppServiceConnectionStatus openOnBus(const hstring& packageFamilyName,
                                         const hstring& appServiceName);
    // Makes the connection open over the socket; false if it was closed.
    bool attach(Posix::FileDescriptor socket, ClientId client, std::shared_ptr<ChannelLoop> loop);

    // Taken alone: nothing else is locked while it is held (a channel is
    // made under it, and closed only after it is let go).
    mutable Mutex mutex_;
    hstring appServiceName_ QV_GUARDED_BY(mutex_);
    hstring packageFamilyName_ QV_GUARDED_BY(mutex_);
    State state_ QV_GUARDED_BY(mutex_) = State::Unopened;
    std::shared_ptr<AppServiceChannel> channel_ QV_GUARDED_BY(mutex_);
};

}  // namespace Quorvendale::Platform::Details
