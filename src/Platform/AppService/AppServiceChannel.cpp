#include "Platform/AppService/AppServiceChannel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "Platform/AppService/ConnectionObject.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Platform/AppService/OutgoingPump.h"
#include "Platform/Foundation/ThreadPool.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// A frame body is received in steps that grow with what has arrived, so a
// peer that announces a large frame and sends little makes us allocate
// little, and a real large frame costs few reallocations.
constexpr std::size_t firstReadStep = 64 * 1024;

AppServiceResponse failed() { return {AppServiceResponseStatus::Failure, ValueSet()}; }

std::uint64_t nextPumpId() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

// One write, so that lines of several threads never interleave.
void logLine(const std::string& text) {
    const std::string line = std::string(program_invocation_short_name) + ": " + text + "\n";
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

AppServiceChannel::AppServiceChannel(Posix::FileDescriptor socket,
                                     std::weak_ptr<ConnectionObject> owner) noexcept
    : socket_(std::move(socket)), owner_(std::move(owner)), pumpId_(nextPumpId()) {}

std::shared_ptr<AppServiceChannel> AppServiceChannel::open(Posix::FileDescriptor socket,
                                                           std::weak_ptr<ConnectionObject> owner) {
    auto channel = std::make_shared<AppServiceChannel>(std::move(socket), std::move(owner));
    std::thread([channel] { channel->readFrames(); }).detach();
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
    const auto frame = AppServiceFrame{AppServiceFrame::Kind::Request, requestId, message}.encode();
    if (!frame || !write(std::move(*frame), false)) {
        answer(requestId, frame ? failed()
                                : AppServiceResponse{AppServiceResponseStatus::MessageSizeTooLarge,
                                                     ValueSet()});
    }
    return completion.operation();
}

bool AppServiceChannel::write(std::string frame, bool isAnswer) {
    std::size_t answersSent = 0;
    bool sent = false;
    {
        MutexLock lock(writeMutex_);
        if (!writable_) return false;
        if (outgoing_.empty()) lastProgress_ = std::chrono::steady_clock::now();
        queuedBytes_ += frame.size();
        outgoing_.push_back({std::move(frame), isAnswer});
        // Behind other frames, it waits for the pump, which is watching:
        // sending here would put its bytes before theirs.
        if (outgoing_.size() > 1) return true;
        sent = sendQueued(answersSent);
        if (sent) watchOrForget();
    }
    answersLeft(answersSent);
    if (!sent) dropQueue();
    return sent;
}

void AppServiceChannel::flush() {
    std::size_t answersSent = 0;
    bool sent = false;
    {
        MutexLock lock(writeMutex_);
        if (!writable_) return;
        sent = sendQueued(answersSent);
        if (sent) watchOrForget();
    }
    answersLeft(answersSent);
    if (!sent) dropQueue();
}

// Sends from the queue until it is empty or the socket is full; false when
// the peer is gone.
bool AppServiceChannel::sendQueued(std::size_t& answersSent) {
    while (!outgoing_.empty()) {
        const std::string& frame = outgoing_.front().frame;
        const char* const rest = frame.data() + sentOfFirst_;
        const std::size_t restSize = frame.size() - sentOfFirst_;
        // MSG_NOSIGNAL: a peer that has gone must not raise SIGPIPE.
        const ssize_t count = Posix::retryInterrupted(
            [&] { return ::send(socket_.get(), rest, restSize, MSG_NOSIGNAL | MSG_DONTWAIT); });
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
        if (count <= 0) return false;
        lastProgress_ = std::chrono::steady_clock::now();
        sentOfFirst_ += static_cast<std::size_t>(count);
        if (sentOfFirst_ < frame.size()) continue;
        queuedBytes_ -= frame.size();
        if (outgoing_.front().isAnswer) ++answersSent;
        outgoing_.pop_front();
        sentOfFirst_ = 0;
    }
    return true;
}

void AppServiceChannel::watchOrForget() {
    if (outgoing_.empty()) {
        if (watched_) OutgoingPump::instance().forget(pumpId_, socket_.get());
        watched_ = false;
    } else if (watched_) {
        OutgoingPump::instance().rearm(pumpId_, socket_.get());
    } else {
        watched_ = true;
        OutgoingPump::instance().watch(pumpId_, socket_.get(), weak_from_this());
    }
}

// The peer is gone or cut off: what it has not taken is freed now, and the
// reader is woken to see the end of the stream.
void AppServiceChannel::dropQueue() {
    decltype(outgoing_) dropped;
    {
        MutexLock lock(writeMutex_);
        writable_ = false;
        dropped.swap(outgoing_);
        queuedBytes_ = 0;
        sentOfFirst_ = 0;
        if (watched_) OutgoingPump::instance().forget(pumpId_, socket_.get());
        watched_ = false;
    }
    ::shutdown(socket_.get(), SHUT_RDWR);
}

void AppServiceChannel::closeIfStalled() {
    std::size_t unread = 0;
    {
        MutexLock lock(writeMutex_);
        if (!writable_ || queuedBytes_ <= maximumUnreadBytes ||
            std::chrono::steady_clock::now() - lastProgress_ < stalledPeerLimit) {
            return;
        }
        unread = queuedBytes_;
    }
    logLine("closing an app-service connection whose peer has stopped reading (" +
            std::to_string(unread >> 10) + " KiB waiting for it for " +
            std::to_string(stalledPeerLimit.count()) + " s)");
    close(true);
}

void AppServiceChannel::answersLeft(std::size_t count) {
    if (count == 0) return;
    MutexLock lock(mutex_);
    inFlight_ -= std::min(count, inFlight_);
    room_.notify_one();
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
    {
        MutexLock lock(mutex_);
        if (closed_) return;
        closed_ = true;
        waiting.swap(waiting_);
    }
    room_.notify_all();
    // Also wakes the reader, which sees the end of the stream.
    dropQueue();
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

void AppServiceChannel::readFrames() {
    for (;;) {
        {
            MutexLock lock(mutex_);
            while (!closed_ && inFlight_ >= maximumRequestsInFlight) room_.wait(lock.forWaiting());
            if (closed_) break;
        }
        auto frame = readFrame();
        if (!frame) break;
        dispatch(std::move(*frame));
    }
    close(true);
}

std::optional<AppServiceFrame> AppServiceChannel::readFrame() {
    try {
        std::string length(AppServiceFrame::lengthSize, '\0');
        if (!readExactly(length.data(), length.size())) return std::nullopt;
        const std::size_t bodyLength = AppServiceFrame::bodyLength(length);
        std::string body;
        while (body.size() < bodyLength) {
            const std::size_t step =
                std::min(bodyLength - body.size(), std::max(firstReadStep, body.size()));
            body.resize(body.size() + step);
            if (!readExactly(body.data() + body.size() - step, step)) return std::nullopt;
        }
        return AppServiceFrame::decode(body);
    } catch (const MalformedFrame&) {
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

bool AppServiceChannel::readExactly(char* into, std::size_t size) {
    while (size > 0) {
        const ssize_t count =
            Posix::retryInterrupted([&] { return ::recv(socket_.get(), into, size, 0); });
        if (count <= 0) return false;
        into += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

void AppServiceChannel::dispatch(AppServiceFrame&& frame) {
    switch (frame.kind) {
        case AppServiceFrame::Kind::Request:
            raiseRequest(frame.requestId, std::move(frame.message));
            break;
        case AppServiceFrame::Kind::Response:
            answer(frame.requestId, {AppServiceResponseStatus::Success, std::move(frame.message)});
            break;
        case AppServiceFrame::Kind::Refusal:
            answer(frame.requestId, failed());
            break;
    }
}

void AppServiceChannel::raiseRequest(std::uint64_t requestId, ValueSet message) {
    {
        MutexLock lock(mutex_);
        ++inFlight_;
    }
    auto request =
        std::make_shared<IncomingRequest>(shared_from_this(), requestId, std::move(message));
    ThreadPool::submit([self = shared_from_this(), request] {
        // A request whose connection ended before its turn is dropped unheard.
        const auto owner = self->ended() ? nullptr : self->owner_.lock();
        if (owner) {
            owner->requestReceived(AppServiceConnection(owner),
                                   AppServiceRequestReceivedEventArgs(request));
        }
        request->release();
    });
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
