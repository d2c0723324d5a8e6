#include "Platform/AppService/AppServiceChannel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "Platform/AppService/AppServiceStatistics.h"
#include "Platform/AppService/ChannelLoop.h"
#include "Platform/AppService/ConnectionObject.h"
#include "Platform/AppService/FrameMemory.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Platform/AppService/RequestScheduler.h"
#include "Platform/Foundation/Log.h"
#include "Platform/Foundation/ThreadPool.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// What one turn of the loop receives from one peer at most: a small frame
// whole, a large one in slices, so that a peer sending 64 MiB does not keep
// the others waiting while it arrives.
constexpr std::size_t sliceSize = 256 * 1024;

// Requests of one connection that run at once: one per core. More would only
// take cores from other connections' requests; a handler that waits takes a
// deferral and returns, and does not count.
std::size_t maximumRunning() {
    static const std::size_t running = std::max(2u, std::thread::hardware_concurrency());
    return running;
}

AppServiceResponse failed() { return {AppServiceResponseStatus::Failure, ValueSet()}; }

std::uint64_t nextChannelId() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

void logLine(const std::string& text) { Platform::logLine(LogLevel::Warning, text); }

}  // namespace

AppServiceChannel::AppServiceChannel(Posix::FileDescriptor socket,
                                     std::weak_ptr<ConnectionObject> owner) noexcept
    : socket_(std::move(socket)), owner_(std::move(owner)), id_(nextChannelId()) {}

AppServiceChannel::~AppServiceChannel() {
    ChannelLoop::instance().forget(socket_.get());
    forgetPartialFrame();
    MutexLock lock(mutex_);
    FrameMemory::release(queuedBytes_);
}

std::shared_ptr<AppServiceChannel> AppServiceChannel::open(Posix::FileDescriptor socket,
                                                           std::weak_ptr<ConnectionObject> owner) {
    auto channel = std::make_shared<AppServiceChannel>(std::move(socket), std::move(owner));
    ChannelLoop::instance().add(channel);
    return channel;
}

IAsyncOperation<AppServiceResponse> AppServiceChannel::sendRequest(const ValueSet& message) {
    AsyncCompletion<AppServiceResponse> completion;
    std::uint64_t requestId = 0;
    {
        MutexLock lock(mutex_);
        if (closed_) {
            completion.Complete(failed());
            return completion.operation();
        }
        requestId = ++lastRequestId_;
        // Registered before the frame leaves: the answer may beat write() back.
        waiting_.emplace(requestId, completion);
    }
    auto frame = AppServiceFrame{AppServiceFrame::Kind::Request, requestId, message}.encode();
    if (!frame || !write(std::move(*frame), false)) {
        answer(requestId, frame ? failed()
                                : AppServiceResponse{AppServiceResponseStatus::MessageSizeTooLarge,
                                                     ValueSet()});
    }
    return completion.operation();
}

bool AppServiceChannel::write(EncodedFrame frame, bool isAnswer) {
    std::size_t answersSent = 0;
    bool queued = false;
    bool sent = false;
    {
        MutexLock lock(mutex_);
        if (closed_ || peerGone_) return false;
        if (outgoing_.empty()) lastSent_ = std::chrono::steady_clock::now();
        queuedBytes_ += frame.size();
        FrameMemory::add(frame.size());
        outgoing_.push_back({std::move(frame), isAnswer});
        // Behind other frames, it leaves with them, sent by the thread that
        // sends them or by the loop: sending here would put its bytes
        // before theirs.
        if (outgoing_.size() > 1) return true;
        sending_ = true;
        // The writer may hold a request's lock: the loop ends the connection.
        sent = sendQueued(answersSent);
        peerGone_ = peerGone_ || !sent;
        queued = !outgoing_.empty();
    }
    afterSending(answersSent, queued);
    return sent;
}

void AppServiceChannel::flush() {
    std::size_t answersSent = 0;
    bool sent = false;
    {
        MutexLock lock(mutex_);
        // A thread sending now tells the loop what it leaves behind.
        if (closed_ || sending_) return;
        sending_ = true;
        sent = sendQueued(answersSent);
    }
    if (!sent) {
        close(true);
        return;
    }
    afterSending(answersSent, false);
}

// Sends from the queue until it is empty or the socket is full; false when
// the peer is gone. The caller has taken sending_, which this gives back.
// The lock is let go during each send: the send wakes the peer, which on a
// busy core may run at once, and this thread should not keep the channel
// locked meanwhile. The frame being sent stays at the front of the queue,
// where only the sender takes it away (references into a deque outlive
// push_back), and a close() meanwhile leaves the queue to the sender.
bool AppServiceChannel::sendQueued(std::size_t& answersSent) {
    bool peerThere = true;
    while (!outgoing_.empty() && !closed_) {
        const EncodedFrame& frame = outgoing_.front().frame;
        const std::string_view rest = frame.piece(sentOfFirst_);
        mutex_.unlock();
        // MSG_NOSIGNAL: a peer that has gone must not raise SIGPIPE.
        const ssize_t count = Posix::retryInterrupted([&] {
            return ::send(socket_.get(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        });
        const int error = errno;
        mutex_.lock();
        if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK)) break;
        if (count <= 0) {
            peerThere = false;
            break;
        }
        lastSent_ = std::chrono::steady_clock::now();
        AppServiceStatistics::sent(static_cast<std::size_t>(count));
        sentOfFirst_ += static_cast<std::size_t>(count);
        if (sentOfFirst_ < frame.size()) continue;
        queuedBytes_ -= frame.size();
        FrameMemory::release(frame.size());
        if (outgoing_.front().isAnswer) ++answersSent;
        outgoing_.pop_front();
        sentOfFirst_ = 0;
    }
    sending_ = false;
    if (closed_) dropQueue();
    return peerThere;
}

// Answers that left may make room for more requests, and a queue that began
// changes what the loop watches. The loop is told only then, so a frame that
// leaves whole at once wakes it not. (A queue empties only in flush(), in
// the loop, which looks at the channel again after it.)
void AppServiceChannel::afterSending(std::size_t answersSent, bool queued) {
    bool reconsider = queued;
    {
        MutexLock lock(mutex_);
        reconsider = reconsider || peerGone_;
        if (answersSent > 0) {
            reconsider = reconsider || inFlight_ >= maximumRequestsInFlight;
            inFlight_ -= std::min(answersSent, inFlight_);
            reconsider = reconsider || (peerEnded_ && inFlight_ == 0);
        }
    }
    if (reconsider) ChannelLoop::instance().reconsider(id_);
}

// What the peer has not taken is freed now, or by the thread sending now
// once its send returns; the peer sees the end of the stream.
void AppServiceChannel::dropQueue() {
    ::shutdown(socket_.get(), SHUT_RDWR);
    if (sending_) return;
    FrameMemory::release(queuedBytes_);
    outgoing_.clear();
    queuedBytes_ = 0;
    sentOfFirst_ = 0;
}

AppServiceChannel::Interest AppServiceChannel::interest() const {
    MutexLock lock(mutex_);
    if (closed_) return {.ended = true};
    // A peer that ended its stream is done with once its last answer left.
    if (peerGone_ || (peerEnded_ && inFlight_ == 0)) return {.peerGone = true};
    return {.read = !peerEnded_ && inFlight_ < maximumRequestsInFlight && !waitingForMemory_,
            .write = !outgoing_.empty() && !sending_,
            .waitingForMemory = waitingForMemory_};
}

void AppServiceChannel::closeIfStalled(bool othersWaitForMemory) {
    const auto now = std::chrono::steady_clock::now();
    if (othersWaitForMemory && incoming_.reserved > 0 &&
        now - incoming_.lastProgress >= stalledPeerLimit) {
        logLine("closing an app-service connection whose peer stopped sending in the middle of "
                "a frame (" + std::to_string(incoming_.received >> 10) +
                " KiB held for it while others wait)");
        AppServiceStatistics::peerCutOff();
        close(true);
        return;
    }
    std::size_t unread = 0;
    {
        MutexLock lock(mutex_);
        if (closed_ || queuedBytes_ <= maximumUnreadBytes || now - lastSent_ < stalledPeerLimit) {
            return;
        }
        unread = queuedBytes_;
    }
    logLine("closing an app-service connection whose peer has stopped reading (" +
            std::to_string(unread >> 10) + " KiB waiting for it for " +
            std::to_string(stalledPeerLimit.count()) + " s)");
    AppServiceStatistics::peerCutOff();
    close(true);
}

bool AppServiceChannel::ended() const {
    MutexLock lock(mutex_);
    return closed_;
}

void AppServiceChannel::whenEnded(std::function<void()> handler) {
    {
        MutexLock lock(mutex_);
        if (!closed_) {
            ended_.add(std::move(handler));
            return;
        }
    }
    ThreadPool::submit(std::move(handler));
}

void AppServiceChannel::close(bool byPeer) {
    decltype(waiting_) waiting;
    decltype(unserved_) unserved;  // requests not yet started are dropped unheard
    {
        MutexLock lock(mutex_);
        if (closed_) return;
        closed_ = true;
        waiting.swap(waiting_);
        unserved.swap(unserved_);
        dropQueue();
    }
    ChannelLoop::instance().reconsider(id_);
    for (auto& [requestId, completion] : waiting) completion.Complete(failed());
    ThreadPool::submit([self = shared_from_this(), byPeer] { self->raiseEnd(byPeer); });
}

void AppServiceChannel::raiseEnd(bool byPeer) {
    const std::shared_ptr<ConnectionObject> owner = owner_.lock();
    if (owner && byPeer) {
        owner->serviceClosed(AppServiceConnection(owner),
                             AppServiceClosedEventArgs(AppServiceClosedStatus::Completed));
    }
    ended_();
    // What the handlers hold (a task, its service) may now go.
    if (owner) {
        owner->requestReceived.clear();
        owner->serviceClosed.clear();
    }
    ended_.clear();
}

void AppServiceChannel::readSome() {
    waitingForMemory_ = false;  // memory may have come free: it asks again
    if (!interest().read) return;
    std::size_t budget = sliceSize;
    Received received = Received::Broken;
    try {
        received = receive(budget);
    } catch (const MalformedFrame&) {  // a length over the limit
    } catch (const std::bad_alloc&) {
    }
    switch (received) {
        case Received::Broken:
            close(true);
            break;
        case Received::Ended:
            endOfStream();
            break;
        case Received::Waiting:
            break;
        case Received::Frame: {
            std::optional<AppServiceFrame> frame;
            try {
                frame = AppServiceFrame::decode(
                    {incoming_.body.data(), incoming_.bodySize},
                    [&](std::size_t read) { incoming_.body.releaseBelow(read); });
            } catch (const MalformedFrame&) {
            } catch (const std::bad_alloc&) {
            }
            forgetPartialFrame();
            if (frame) {
                dispatch(std::move(*frame));
            } else {
                close(true);
            }
            break;
        }
    }
}

// The peer has sent all it will: a half-close, or the first sign of a
// hang-up. What it asked before is still served, and answered as long as the
// socket takes answers (a send that fails ends the connection); the
// connection closes once the last answer has left. A frame the end cut short
// is dropped. Requests of this side's own still waiting can have no answer
// now, and end the connection at once.
void AppServiceChannel::endOfStream() {
    bool closeNow = false;
    {
        MutexLock lock(mutex_);
        peerEnded_ = true;
        closeNow = inFlight_ == 0 || !waiting_.empty();
    }
    forgetPartialFrame();
    if (closeNow) {
        close(true);
    } else {
        ChannelLoop::instance().reconsider(id_);
    }
}

// Receives into the frame on its way until it is whole, the socket has no
// more, or this turn's budget is spent.
AppServiceChannel::Received AppServiceChannel::receive(std::size_t& budget) {
    PartialFrame& frame = incoming_;
    if (frame.lengthReceived < AppServiceFrame::lengthSize) {
        std::size_t received = 0;
        if (!receiveInto(frame.length + frame.lengthReceived,
                         AppServiceFrame::lengthSize - frame.lengthReceived, received)) {
            return Received::Ended;
        }
        frame.lengthReceived += received;
        if (frame.lengthReceived < AppServiceFrame::lengthSize) return Received::Waiting;
        frame.bodySize = AppServiceFrame::bodyLength({frame.length, sizeof frame.length});
        // A paged buffer holds only the pages that have come: it gets the
        // whole size at once, and its first slice is never copied.
        frame.capacity = frame.bodySize >= FrameBuffer::pagedSize
                             ? frame.bodySize
                             : std::min(frame.bodySize, sliceSize);
        frame.body = FrameBuffer(frame.capacity);
        frame.lastProgress = std::chrono::steady_clock::now();
    }
    while (frame.received < frame.bodySize && budget > 0) {
        const std::size_t step = std::min({frame.bodySize - frame.received, sliceSize, budget});
        if (frame.received + step > frame.reserved) {
            const std::size_t more = frame.received + step - frame.reserved;
            if (!FrameMemory::tryReserve(more)) {
                waitingForMemory_ = true;
                return Received::Waiting;
            }
            frame.reserved += more;
        }
        if (frame.received + step > frame.capacity) {
            // The peer has sent more than a slice: it means it, and the body
            // gets its whole size, not filled, once.
            FrameBuffer whole(frame.bodySize);
            std::memcpy(whole.data(), frame.body.data(), frame.received);
            frame.body = std::move(whole);
            frame.capacity = frame.bodySize;
        }
        std::size_t received = 0;
        if (!receiveInto(frame.body.data() + frame.received, step, received)) {
            return Received::Ended;
        }
        if (received == 0) return Received::Waiting;
        frame.received += received;
        frame.lastProgress = std::chrono::steady_clock::now();
        budget -= std::min(budget, received);
    }
    return frame.received == frame.bodySize ? Received::Frame : Received::Waiting;
}

// False at the end of the stream or on an error; `received` is 0 when the
// socket has nothing now.
bool AppServiceChannel::receiveInto(char* into, std::size_t size, std::size_t& received) {
    const ssize_t count = Posix::retryInterrupted(
        [&] { return ::recv(socket_.get(), into, size, MSG_DONTWAIT); });
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
    if (count <= 0) return false;
    received = static_cast<std::size_t>(count);
    AppServiceStatistics::received(received);
    return true;
}

void AppServiceChannel::forgetPartialFrame() {
    FrameMemory::release(incoming_.reserved);
    incoming_ = PartialFrame{};
    waitingForMemory_ = false;
}

void AppServiceChannel::dispatch(AppServiceFrame&& frame) {
    switch (frame.kind) {
        case AppServiceFrame::Kind::Request:
            queueRequest(frame.requestId, std::move(frame.message));
            break;
        case AppServiceFrame::Kind::Response:
            answer(frame.requestId, {AppServiceResponseStatus::Success, std::move(frame.message)});
            break;
        case AppServiceFrame::Kind::Refusal:
            answer(frame.requestId, failed());
            break;
    }
}

void AppServiceChannel::queueRequest(std::uint64_t requestId, ValueSet message) {
    auto request =
        std::make_shared<IncomingRequest>(shared_from_this(), requestId, std::move(message));
    bool schedule = false;
    {
        MutexLock lock(mutex_);
        if (closed_) return;
        ++inFlight_;
        unserved_.push_back(std::move(request));
        schedule = !std::exchange(scheduled_, true);
    }
    RequestScheduler::add(shared_from_this(), schedule);
}

std::shared_ptr<IncomingRequest> AppServiceChannel::takeRequest(bool& more) {
    MutexLock lock(mutex_);
    std::shared_ptr<IncomingRequest> request;
    if (!unserved_.empty() && running_ < maximumRunning()) {
        request = std::move(unserved_.front());
        unserved_.pop_front();
        ++running_;
    }
    more = !unserved_.empty() && running_ < maximumRunning();
    scheduled_ = more;
    return request;
}

bool AppServiceChannel::finishedServing(bool& joinsTheLine) {
    MutexLock lock(mutex_);
    --running_;
    if (unserved_.empty()) return false;
    joinsTheLine = !std::exchange(scheduled_, true);
    return true;
}

void AppServiceChannel::serve(const std::shared_ptr<IncomingRequest>& request) {
    // A request whose connection ended since it was taken is dropped unheard.
    if (const auto owner = ended() ? nullptr : owner_.lock()) {
        owner->requestReceived(AppServiceConnection(owner),
                               AppServiceRequestReceivedEventArgs(request));
    }
    request->release();
}

// An answer for a request no longer waiting (one already failed by close, or
// a peer's invention) is dropped.
void AppServiceChannel::answer(std::uint64_t requestId, AppServiceResponse response) {
    std::optional<AsyncCompletion<AppServiceResponse>> completion;
    {
        MutexLock lock(mutex_);
        auto waiting = waiting_.find(requestId);
        if (waiting == waiting_.end()) return;
        completion = std::move(waiting->second);
        waiting_.erase(waiting);
    }
    completion->Complete(std::move(response));
}

}  // namespace Quorvendale::Platform::Details
