#include "Platform/AppService/AppServiceChannel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "Platform/AppService/ConnectionObject.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Platform/Foundation/ThreadPool.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// A frame body is received in steps that grow with what has arrived, so a
// peer that announces a large frame and sends little makes us allocate
// little, and a real large frame costs few reallocations.
constexpr std::size_t firstReadStep = 64 * 1024;

AppServiceResponse failed() { return {AppServiceResponseStatus::Failure, ValueSet()}; }

}  // namespace

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
    if (!frame || !write(*frame)) {
        answer(requestId, frame ? failed()
                                : AppServiceResponse{AppServiceResponseStatus::MessageSizeTooLarge,
                                                     ValueSet()});
    }
    return completion.operation();
}

bool AppServiceChannel::write(const std::string& frame) {
    MutexLock lock(writeMutex_);
    for (std::size_t sent = 0; sent < frame.size();) {
        // MSG_NOSIGNAL: a peer that has gone must not raise SIGPIPE.
        const ssize_t count = Posix::retryInterrupted([&] {
            return ::send(socket_.get(), frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        });
        if (count <= 0) return false;
        sent += static_cast<std::size_t>(count);
    }
    return true;
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
    // Wakes the reader (it sees the end of the stream) and any blocked writer.
    ::shutdown(socket_.get(), SHUT_RDWR);
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
    while (auto frame = readFrame()) dispatch(std::move(*frame));
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
    auto request =
        std::make_shared<IncomingRequest>(shared_from_this(), requestId, std::move(message));
    ThreadPool::submit([self = shared_from_this(), request] {
        if (const auto owner = self->owner_.lock()) {
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
