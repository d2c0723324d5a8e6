#include "Platform/AppService/AppServiceChannel.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "Platform/AppService/AppServiceStatistics.h"
#include "Platform/AppService/ConnectionObject.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Platform/Foundation/Log.h"
#include "Platform/Foundation/ThreadPool.h"

namespace Quorvendale::Platform::Details {
namespace {

std::uint64_t nextChannelId() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

}  // namespace

AppServiceChannel::AppServiceChannel(std::shared_ptr<ChannelLoop> loop,
                                     Posix::FileDescriptor socket,
                                     std::weak_ptr<ConnectionObject> owner,
                                     ClientId client) noexcept
    : loop_(std::move(loop)),
      socket_(std::move(socket)),
      owner_(std::move(owner)),
      id_(nextChannelId()),
      // A peer of no name is its connection alone.
      client_(client != 0 ? client : (ClientId{1} << 63) | id_),
      receiver_(loop_->memory(), client_),
      sender_(socket_.get(), loop_->memory(), client_),
      pending_([loop = loop_.get()](std::function<void()> handler) {
          loop->giveWork(std::move(handler));
      }) {}

AppServiceChannel::~AppServiceChannel() = default;

std::shared_ptr<AppServiceChannel> AppServiceChannel::open(std::shared_ptr<ChannelLoop> loop,
                                                           Posix::FileDescriptor socket,
                                                           std::weak_ptr<ConnectionObject> owner,
                                                           ClientId client) {
    auto channel = std::make_shared<AppServiceChannel>(loop, std::move(socket), std::move(owner),
                                                       client);
    loop->watch(channel);
    return channel;
}

IAsyncOperation<AppServiceResponse> AppServiceChannel::sendRequest(const ValueSet& message) {
    AsyncCompletion<AppServiceResponse> completion;
    // Registered before the frame leaves: the answer may beat the send back.
    const std::optional<std::uint64_t> requestId = pending_.add(completion);
    if (!requestId) {
        completion.Complete(PendingAnswers::failed());
        return completion.operation();
    }
    auto frame = AppServiceFrame{AppServiceFrame::Kind::Request, *requestId, message}.encode();
    if (!frame) {
        pending_.answer(*requestId, {AppServiceResponseStatus::MessageSizeTooLarge, ValueSet()});
        return completion.operation();
    }
    const FrameSender::Sent sent = sender_.send(std::move(*frame), false);
    afterSending(sent);
    if (sent.peerGone) pending_.answer(*requestId, PendingAnswers::failed());
    return completion.operation();
}

bool AppServiceChannel::sendAnswer(EncodedFrame frame) {
    const FrameSender::Sent sent = sender_.send(std::move(frame), true);
    afterSending(sent);
    return !sent.peerGone;
}

void AppServiceChannel::flush() { afterSending(sender_.flush()); }

// Answers that left may make room for more requests, and a queue that began
// changes what the loop watches; the loop is told only then, so a frame that
// leaves whole at once wakes it not.
void AppServiceChannel::afterSending(const FrameSender::Sent& sent) {
    if (sent.memoryWanted) loop_->memoryCameBack();
    if (sent.peerGone) {
        close(EndedBy::Runtime);
        return;
    }
    bool lookAgain = sent.queued;
    for (std::size_t answer = 0; answer < sent.answersSent; ++answer) {
        lookAgain = loop_->scheduler().answered(id_) || lookAgain;
    }
    if (sent.answersSent > 0) {
        bool done = false;
        {
            MutexLock lock(mutex_);
            done = peerEnded_ && loop_->scheduler().inFlight(id_) == 0;
        }
        // A peer that ended its stream is done with once its last answer left.
        if (done) {
            close(EndedBy::Runtime);
            return;
        }
    }
    if (lookAgain) loop_->lookAgain(id_);
}

AppServiceChannel::Interest AppServiceChannel::interest(const LoopTurn&) const {
    if (ended()) return {.ended = true};
    return {.read = mayReceive() && !receiver_.waitingForMemory(), .write = sender_.hasUnsent()};
}

// Whether the channel reads from its peer, memory aside.
bool AppServiceChannel::mayReceive() const {
    {
        MutexLock lock(mutex_);
        if (closed_ || peerEnded_) return false;
    }
    return loop_->scheduler().mayReceive(id_);
}

void AppServiceChannel::cutOffIfLate(const LoopTurn& turn,
                                     std::chrono::steady_clock::duration wanted) {
    if (interest(turn).read && receiver_.late(wanted)) {
        cutOff("closing an app-service connection whose peer stopped sending in the middle of "
               "a frame (slower than " + std::to_string(floorBytesPerSecond >> 10) + " KiB/s; " +
               std::to_string(receiver_.held() >> 10) + " KiB held for it)");
    } else if (sender_.late(std::chrono::steady_clock::now())) {
        cutOff("closing an app-service connection whose peer has stopped reading (slower than " +
               std::to_string(floorBytesPerSecond >> 10) + " KiB/s; " +
               std::to_string(sender_.queuedBytes() >> 10) + " KiB waiting for it)");
    }
}

void AppServiceChannel::cutOff(const std::string& why) {
    logLine(LogLevel::Warning, why);
    AppServiceStatistics::peerCutOff();
    close(EndedBy::Runtime);
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

void AppServiceChannel::close(EndedBy by) {
    {
        MutexLock lock(mutex_);
        if (closed_) return;
        closed_ = true;
    }
    if (sender_.stop()) loop_->memoryCameBack();
    loop_->scheduler().drop(id_);
    pending_.close();
    loop_->lookAgain(id_);
    ThreadPool::submit([self = shared_from_this(), by] { self->raiseEnd(by); });
}

void AppServiceChannel::raiseEnd(EndedBy by) {
    const std::shared_ptr<ConnectionObject> owner = owner_.lock();
    if (owner && by == EndedBy::Runtime) {
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

void AppServiceChannel::receive(const LoopTurn&) {
    if (!mayReceive()) return;
    switch (receiver_.receive(socket_.get())) {
        case FrameReceiver::Result::Broken:
            close(EndedBy::Runtime);
            break;
        case FrameReceiver::Result::Ended:
            endOfStream();
            break;
        case FrameReceiver::Result::Waiting:
        case FrameReceiver::Result::WaitingForMemory:
            break;
        case FrameReceiver::Result::Frame: {
            std::size_t held = 0;
            std::optional<AppServiceFrame> frame;
            try {
                frame = receiver_.take(held);
            } catch (const MalformedFrame&) {
            } catch (const std::bad_alloc&) {
            }
            if (frame) {
                dispatch(std::move(*frame), held);
            } else {
                giveBack(held);
                close(EndedBy::Runtime);
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
    {
        MutexLock lock(mutex_);
        peerEnded_ = true;
    }
    if (loop_->scheduler().inFlight(id_) == 0 || !pending_.empty()) {
        close(EndedBy::Runtime);
    } else {
        loop_->lookAgain(id_);
    }
}

void AppServiceChannel::forgetPartialFrame(const LoopTurn&) {
    if (receiver_.forget()) loop_->memoryCameBack();
}

void AppServiceChannel::giveBack(std::size_t bytes) {
    if (loop_->memory().giveBack(client_, bytes)) loop_->memoryCameBack();
}

void AppServiceChannel::dispatch(AppServiceFrame&& frame, std::size_t held) {
    switch (frame.kind) {
        case AppServiceFrame::Kind::Request: {
            // The frame's memory stays taken while its request is served:
            // the message it holds is the value being written.
            auto request = std::make_shared<IncomingRequest>(
                shared_from_this(), frame.requestId, std::move(frame.message), held);
            loop_->giveJobs(loop_->scheduler().add(std::move(request)));
            return;
        }
        case AppServiceFrame::Kind::Response:
            giveBack(held);
            pending_.answer(frame.requestId,
                            {AppServiceResponseStatus::Success, std::move(frame.message)});
            return;
        case AppServiceFrame::Kind::Refusal:
            giveBack(held);
            pending_.answer(frame.requestId, PendingAnswers::failed());
            return;
    }
}

void AppServiceChannel::raise(const std::shared_ptr<IncomingRequest>& request) {
    // A request whose connection ended since it was taken is dropped unheard.
    if (const auto owner = ended() ? nullptr : owner_.lock()) {
        try {
            owner->requestReceived(AppServiceConnection(owner),
                                   AppServiceRequestReceivedEventArgs(request));
        } catch (const std::exception& error) {
            logLine(LogLevel::Failure, std::string("a request's handler failed: ") + error.what());
        } catch (...) {
            logLine(LogLevel::Failure, "a request's handler failed with an exception of unknown type");
        }
    }
    request->dropHold();
}

}  // namespace Quorvendale::Platform::Details
