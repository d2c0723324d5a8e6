// AppServiceChannel: the machinery of an open AppServiceConnection. It is the
// socket, its reader thread, the requests waiting for answers, the requests
// being answered and the frames waiting to leave. The reader thread keeps the
// channel in memory until it has seen the stream end; the channel reaches its
// owner only through a weak reference, to raise events with it as sender.
//
// No thread waits on the peer to send: a frame goes out as far as the socket
// takes it at once, and the rest waits in the channel's queue, which the
// OutgoingPump sends as the peer reads. A peer that has stopped reading is
// cut off (maximumUnreadBytes), and one that asks faster than it is answered
// is read no further until answers have left (maximumRequestsInFlight).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
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
    // A peer that has not taken a byte for stalledPeerLimit while more than
    // this waits for it has stopped reading, and its connection is closed.
    // A few MiB: far more than any peer that reads ever leaves behind (the
    // socket's own buffer takes the first few hundred KiB), far less than
    // what a host serving many connections can hold for each. A single large
    // frame still leaves, as long as the peer keeps taking it.
    static constexpr std::size_t maximumUnreadBytes = 4u << 20;
    static constexpr std::chrono::seconds stalledPeerLimit{2};
    // Past this many requests received and not answered, the channel reads
    // no more from its peer until answers have left; the socket's buffers
    // then push back on the sender, and one connection's work stays bounded.
    static constexpr std::size_t maximumRequestsInFlight = 32;

    AppServiceChannel(Posix::FileDescriptor socket, std::weak_ptr<ConnectionObject> owner) noexcept;

    // Starts the reader thread, which owns the channel until the stream ends.
    static std::shared_ptr<AppServiceChannel> open(Posix::FileDescriptor socket,
                                                   std::weak_ptr<ConnectionObject> owner);

    IAsyncOperation<AppServiceResponse> sendRequest(const ValueSet& message);
    // Sends a whole frame, or queues what the socket does not take at once;
    // false if the connection has ended. An answer (a response or a refusal)
    // counts its request in flight until it has left.
    bool write(std::string frame, bool isAnswer);
    void whenEnded(std::function<void()> handler);
    // byPeer: the end did not come from this side's Close(); the owner's
    // ServiceClosed is raised.
    void close(bool byPeer);
    bool ended() const;

    // For the OutgoingPump: sends what the socket takes now.
    void flush();
    // Ends the connection if its peer has stopped reading.
    void closeIfStalled();

private:
    struct Outgoing {
        std::string frame;
        bool isAnswer;
    };

    bool sendQueued(std::size_t& answersSent) QV_REQUIRES(writeMutex_);
    void watchOrForget() QV_REQUIRES(writeMutex_);
    void dropQueue() QV_EXCLUDES(writeMutex_);
    void answersLeft(std::size_t count);
    void readFrames();
    std::optional<AppServiceFrame> readFrame();
    bool readExactly(char* into, std::size_t size);
    void dispatch(AppServiceFrame&& frame);
    void raiseRequest(std::uint64_t requestId, ValueSet message);
    void raiseEnd(bool byPeer);
    void answer(std::uint64_t requestId, AppServiceResponse response);

    const Posix::FileDescriptor socket_;
    const std::weak_ptr<ConnectionObject> owner_;
    const std::uint64_t pumpId_;
    // Keeps each frame's bytes together on the socket and in order. An answer
    // is written with its IncomingRequest's lock held; under this one only
    // the OutgoingPump's lock is taken.
    Mutex writeMutex_;
    std::deque<Outgoing> outgoing_ QV_GUARDED_BY(writeMutex_);
    std::size_t sentOfFirst_ QV_GUARDED_BY(writeMutex_) = 0;
    std::size_t queuedBytes_ QV_GUARDED_BY(writeMutex_) = 0;
    // When the peer last took bytes, or when the queue last became non-empty.
    std::chrono::steady_clock::time_point lastProgress_ QV_GUARDED_BY(writeMutex_);
    bool writable_ QV_GUARDED_BY(writeMutex_) = true;
    bool watched_ QV_GUARDED_BY(writeMutex_) = false;
    // Taken alone, never with writeMutex_: a request is registered under it,
    // and written after it is let go.
    mutable Mutex mutex_;
    bool closed_ QV_GUARDED_BY(mutex_) = false;
    // Requests received and not yet answered on the socket; the reader waits
    // on room_ while there are maximumRequestsInFlight of them.
    std::size_t inFlight_ QV_GUARDED_BY(mutex_) = 0;
    std::condition_variable room_;
    std::uint64_t lastRequestId_ QV_GUARDED_BY(mutex_) = 0;
    std::map<std::uint64_t, AsyncCompletion<AppServiceResponse>> waiting_ QV_GUARDED_BY(mutex_);
    event<> ended_;
};

}  // namespace Quorvendale::Platform::Details
