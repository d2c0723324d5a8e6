// The machinery behind AppServiceConnection.
//
// ConnectionObject is what the copies of one AppServiceConnection share: the
// names it opens, its event handlers, and, once open, its channel. It is the
// channel's one owner: when the last copy goes, it closes the channel.
//
// AppServiceChannel is the socket, its reader thread, the requests waiting
// for answers and the requests being answered. The reader thread keeps the
// channel in memory until it has seen the stream end; the channel reaches its
// owner only through a weak reference, to raise events with it as sender.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "AppServiceConnection.h"
#include "AppServiceFrame.h"

namespace Quorvendale::Platform::Details {

class ConnectionObject : public std::enable_shared_from_this<ConnectionObject> {
public:
    ConnectionObject() = default;
    ConnectionObject(const ConnectionObject&) = delete;
    ConnectionObject& operator=(const ConnectionObject&) = delete;
    ~ConnectionObject();

    // An open connection over a connected socket.
    static std::shared_ptr<ConnectionObject> overSocket(int descriptor);

    hstring appServiceName() const;
    void appServiceName(const hstring& name);
    hstring packageFamilyName() const;
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
    void attach(int descriptor);

    mutable std::mutex mutex_;  // guards the names, the state and the channel
    hstring appServiceName_;
    hstring packageFamilyName_;
    State state_ = State::Unopened;
    std::shared_ptr<AppServiceChannel> channel_;
};

class AppServiceChannel : public std::enable_shared_from_this<AppServiceChannel> {
public:
    AppServiceChannel(int descriptor, std::weak_ptr<ConnectionObject> owner) noexcept
        : descriptor_(descriptor), owner_(std::move(owner)) {}
    ~AppServiceChannel();

    // Starts the reader thread, which owns the channel until the stream ends.
    static std::shared_ptr<AppServiceChannel> open(int descriptor,
                                                   std::weak_ptr<ConnectionObject> owner);

    IAsyncOperation<AppServiceResponse> sendRequest(const ValueSet& message);
    // Writes a whole frame; false if the connection has ended.
    bool write(const std::string& frame);
    void whenEnded(std::function<void()> handler);
    void close(bool byPeer);

private:
    void readFrames();
    std::optional<AppServiceFrame> readFrame();
    bool readExactly(char* into, std::size_t size);
    void dispatch(AppServiceFrame&& frame);
    void raiseRequest(std::uint64_t requestId, ValueSet message);
    void raiseEnd(bool byPeer);
    void answer(std::uint64_t requestId, AppServiceResponse response);

    const int descriptor_;
    const std::weak_ptr<ConnectionObject> owner_;
    std::mutex writeMutex_;  // keeps each frame's bytes together on the socket
    std::mutex mutex_;       // guards closed_, lastRequestId_ and waiting_
    bool closed_ = false;
    std::uint64_t lastRequestId_ = 0;
    std::map<std::uint64_t, AsyncCompletion<AppServiceResponse>> waiting_;
    event<> ended_;
};

// A request received from the peer, open while its handlers run and while a
// deferral on it is outstanding. Holds counts both.
struct IncomingRequest {
    IncomingRequest(std::shared_ptr<AppServiceChannel> from, std::uint64_t id, ValueSet received)
        : channel(std::move(from)), requestId(id), message(std::move(received)) {}

    AppServiceResponseStatus respond(const ValueSet& response);
    void hold();
    // Drops one hold; the last one refuses the request if it was never answered.
    void release();

    const std::shared_ptr<AppServiceChannel> channel;
    const std::uint64_t requestId;
    const ValueSet message;

private:
    std::mutex mutex_;    // guards holds_ and answered_, and orders the answer's write
    unsigned holds_ = 1;  // the handlers' own, dropped when they return
    bool answered_ = false;
};

}  // namespace Quorvendale::Platform::Details
