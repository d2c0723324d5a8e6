// AppServiceChannel: the machinery of an open AppServiceConnection. It is the
// socket, the frame being received, the requests waiting for answers, the
// requests received and not yet served, and the frames waiting to leave. The
// process's ChannelLoop reads and sends for it; the channel reaches its owner
// only through a weak reference, to raise events with it as sender.
//
// No thread waits on a peer: a frame goes out as far as the socket takes it
// at once, and the rest waits in the channel's queue, which the loop sends as
// the peer reads. A peer that has stopped reading is cut off
// (maximumUnreadBytes), and one that asks faster than it is answered is read
// no further until answers have left (maximumRequestsInFlight). Requests are
// served in turn with other connections' (RequestScheduler).
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/AppService/FrameBuffer.h"
#include "Platform/Foundation/AsyncCompletion.h"
#include "Platform/Foundation/Mutex.h"
#include "Posix/FileDescriptor.h"

namespace Quorvendale::Platform::Details {

class ConnectionObject;
struct IncomingRequest;

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

    // What the loop watches the socket for.
    struct Interest {
        bool ended = false;
        bool peerGone = false;  // a send failed: the loop closes the channel
        bool read = false;
        bool write = false;
        bool waitingForMemory = false;
    };

    AppServiceChannel(Posix::FileDescriptor socket, std::weak_ptr<ConnectionObject> owner) noexcept;
    ~AppServiceChannel();

    // Hands the socket to the process's ChannelLoop.
    static std::shared_ptr<AppServiceChannel> open(Posix::FileDescriptor socket,
                                                   std::weak_ptr<ConnectionObject> owner);

    IAsyncOperation<AppServiceResponse> sendRequest(const ValueSet& message);
    // Sends a whole frame, or queues what the socket does not take at once;
    // false if the connection has ended. An answer (a response or a refusal)
    // counts its request in flight until it has left.
    bool write(EncodedFrame frame, bool isAnswer);
    void whenEnded(std::function<void()> handler);
    // byPeer: the end did not come from this side's Close(); the owner's
    // ServiceClosed is raised.
    void close(bool byPeer);
    bool ended() const;

    std::uint64_t id() const noexcept { return id_; }
    int socket() const noexcept { return socket_.get(); }

    // For the ChannelLoop, on its thread.
    Interest interest() const;
    // Receives what has arrived, up to one frame or a slice of a large one.
    void readSome();
    // Sends what the socket takes now.
    void flush();
    // Ends the connection if its peer has stopped reading, or has stopped
    // sending in the middle of a frame while others wait for frame memory.
    void closeIfStalled(bool othersWaitForMemory);
    void forgetPartialFrame();

    // For the RequestScheduler: the oldest request not yet served, if the
    // channel is not at its limit of running requests, and whether another
    // may run after it.
    std::shared_ptr<IncomingRequest> takeRequest(bool& more);
    void serve(const std::shared_ptr<IncomingRequest>& request);
    // True when requests wait, one of which may now run: it needs a job,
    // and the channel rejoins the scheduler's line if it had left it.
    bool finishedServing(bool& joinsTheLine);

private:
    struct Outgoing {
        EncodedFrame frame;
        bool isAnswer;
    };
    // A frame on its way in: its length, then its body. The body's buffer
    // holds a slice at first and its whole size once more has come (a paged
    // one has its whole size from the start, and takes memory as pages
    // fill), so a peer that announces a large frame and sends little holds
    // little, and a large frame is copied once at most. Its bytes are taken
    // from FrameMemory as they arrive.
    struct PartialFrame {
        char length[AppServiceFrame::lengthSize] = {};
        std::size_t lengthReceived = 0;
        FrameBuffer body;
        std::size_t bodySize = 0;
        std::size_t capacity = 0;
        std::size_t received = 0;
        std::size_t reserved = 0;
        std::chrono::steady_clock::time_point lastProgress;
    };

    bool sendQueued(std::size_t& answersSent) QV_REQUIRES(mutex_);
    void afterSending(std::size_t answersSent, bool queued);
    void dropQueue() QV_REQUIRES(mutex_);
    // Ended: the peer's end of stream. Broken: an error, or a frame that
    // cannot be one.
    enum class Received { Frame, Waiting, Ended, Broken };
    Received receive(std::size_t& budget);
    bool receiveInto(char* into, std::size_t size, std::size_t& received);
    void endOfStream();
    void dispatch(AppServiceFrame&& frame);
    void queueRequest(std::uint64_t requestId, ValueSet message);
    void raiseEnd(bool byPeer);
    void answer(std::uint64_t requestId, AppServiceResponse response);

    const Posix::FileDescriptor socket_;
    const std::weak_ptr<ConnectionObject> owner_;
    const std::uint64_t id_;

    // The loop's own, on the thread running its turn.
    PartialFrame incoming_;
    bool waitingForMemory_ = false;

    // Taken after an IncomingRequest's lock, before the RequestScheduler's
    // is let go, and never with another channel's. One thread at a time
    // sends (sending_), from the front of the queue, so frames' bytes stay
    // together on the socket and in order.
    mutable Mutex mutex_;
    bool closed_ QV_GUARDED_BY(mutex_) = false;
    bool peerGone_ QV_GUARDED_BY(mutex_) = false;
    // The peer's stream has ended: nothing more is read.
    bool peerEnded_ QV_GUARDED_BY(mutex_) = false;
    std::deque<Outgoing> outgoing_ QV_GUARDED_BY(mutex_);
    std::size_t sentOfFirst_ QV_GUARDED_BY(mutex_) = 0;
    // A thread is sending the queue's first frame, outside the lock.
    bool sending_ QV_GUARDED_BY(mutex_) = false;
    std::size_t queuedBytes_ QV_GUARDED_BY(mutex_) = 0;
    // When the peer last took bytes, or when the queue last became non-empty.
    std::chrono::steady_clock::time_point lastSent_ QV_GUARDED_BY(mutex_);
    // Requests received and not yet answered on the socket.
    std::size_t inFlight_ QV_GUARDED_BY(mutex_) = 0;
    std::deque<std::shared_ptr<IncomingRequest>> unserved_ QV_GUARDED_BY(mutex_);
    std::size_t running_ QV_GUARDED_BY(mutex_) = 0;
    // In the scheduler's line.
    bool scheduled_ QV_GUARDED_BY(mutex_) = false;
    std::uint64_t lastRequestId_ QV_GUARDED_BY(mutex_) = 0;
    std::map<std::uint64_t, AsyncCompletion<AppServiceResponse>> waiting_ QV_GUARDED_BY(mutex_);
    event<> ended_;
};

}  // namespace Quorvendale::Platform::Details
