// AppServiceChannel: the machinery of an open AppServiceConnection. It is the
// socket, its reader thread, the requests waiting for answers and the
// requests being answered. The reader thread keeps the channel in memory
// until it has seen the stream end; the channel reaches its owner only
// through a weak reference, to raise events with it as sender.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/Foundation/AsyncCompletion.h"
#include "Platform/Foundation/Mutex.h"
#include "Posix/FileDescriptor.h"

namespace Quorvendale::Platform::Details {

class ConnectionObject;

class AppServiceChannel : public std::enable_shared_from_this<AppServiceChannel> {
public:
    AppServiceChannel(Posix::FileDescriptor socket, std::weak_ptr<ConnectionObject> owner) noexcept
        : socket_(std::move(socket)), owner_(std::move(owner)) {}

    // Starts the reader thread, which owns the channel until the stream ends.
    static std::shared_ptr<AppServiceChannel> open(Posix::FileDescriptor socket,
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

    const Posix::FileDescriptor socket_;
    const std::weak_ptr<ConnectionObject> owner_;
    // Keeps each frame's bytes together on the socket. The innermost lock:
    // an answer is written with its IncomingRequest's lock held, and nothing
    // is locked while this one is held.
    Mutex writeMutex_;
    // Taken alone, never with writeMutex_: a request is registered under it,
    // and written after it is let go.
    Mutex mutex_;
    bool closed_ QV_GUARDED_BY(mutex_) = false;
    std::uint64_t lastRequestId_ QV_GUARDED_BY(mutex_) = 0;
    std::map<std::uint64_t, AsyncCompletion<AppServiceResponse>> waiting_ QV_GUARDED_BY(mutex_);
    event<> ended_;
};

}  // namespace Quorvendale::Platform::Details
