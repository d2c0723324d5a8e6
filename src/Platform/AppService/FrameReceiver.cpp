#include "Platform/AppService/FrameReceiver.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Platform/AppService/AppServiceStatistics.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// -1 at the end of the stream or on an error; 0 when the socket has nothing now.
ssize_t receiveInto(int socket, char* into, std::size_t size) {
    const ssize_t count =
        Posix::retryInterrupted([&] { return ::recv(socket, into, size, MSG_DONTWAIT); });
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
    if (count <= 0) return -1;
    AppServiceStatistics::received(static_cast<std::size_t>(count));
    return count;
}

}  // namespace

std::chrono::steady_clock::duration frameDeadline(std::size_t size) {
    return rateGrace + std::chrono::milliseconds(size * 1000 / floorBytesPerSecond);
}

FrameReceiver::Result FrameReceiver::receiveLength(int socket) {
    const ssize_t count = receiveInto(socket, length_ + lengthReceived_,
                                      AppServiceFrame::lengthSize - lengthReceived_);
    if (count < 0) return Result::Ended;
    lengthReceived_ += static_cast<std::size_t>(count);
    if (lengthReceived_ < AppServiceFrame::lengthSize) return Result::Waiting;
    bodySize_ = AppServiceFrame::bodyLength({length_, sizeof length_});
    // A paged buffer holds only the pages that have come: it gets the whole
    // size at once, and its first slice is never copied.
    capacity_ = bodySize_ >= FrameBuffer::pagedSize ? bodySize_ : std::min(bodySize_, sliceSize);
    body_ = FrameBuffer(capacity_);
    return Result::Frame;
}

// Takes the memory for the whole body before its first byte is read (so
// that frames half received never wait on each other for memory they all
// hold), and room in the body for `step` more bytes. Only the count is
// taken at once: the pages come as the bytes do.
bool FrameReceiver::grow(std::size_t step) {
    if (held_ < bodySize_) {
        if (!memory_.tryTake(client_, bodySize_ - held_)) return false;
        held_ = bodySize_;
    }
    if (received_ + step > capacity_) {
        // The peer has sent more than a slice: it means it, and the body
        // gets its whole size, not filled, once.
        FrameBuffer whole(bodySize_);
        std::memcpy(whole.data(), body_.data(), received_);
        body_ = std::move(whole);
        capacity_ = bodySize_;
    }
    return true;
}

FrameReceiver::Result FrameReceiver::receive(int socket) {
    waitingForMemory_ = false;
    try {
        if (lengthReceived_ < AppServiceFrame::lengthSize) {
            const Result length = receiveLength(socket);
            if (length != Result::Frame) return length;
        }
        std::size_t budget = sliceSize;
        while (received_ < bodySize_ && budget > 0) {
            const std::size_t step = std::min(bodySize_ - received_, budget);
            if (!grow(step)) {
                waitingForMemory_ = true;
                return Result::WaitingForMemory;
            }
            const ssize_t count = receiveInto(socket, body_.data() + received_, step);
            if (count < 0) return Result::Ended;
            if (count == 0) return Result::Waiting;
            received_ += static_cast<std::size_t>(count);
            budget -= static_cast<std::size_t>(count);
        }
    } catch (const MalformedFrame&) {  // a length over the limit
        return Result::Broken;
    } catch (const std::bad_alloc&) {
        return Result::Broken;
    }
    return received_ == bodySize_ ? Result::Frame : Result::Waiting;
}

AppServiceFrame FrameReceiver::take(std::size_t& held) {
    held = std::exchange(held_, 0);
    FrameBuffer body = std::move(body_);
    const std::size_t size = bodySize_;
    reset();
    return AppServiceFrame::decode({body.data(), size},
                                   [&](std::size_t read) { body.releaseBelow(read); });
}

bool FrameReceiver::forget() {
    const bool othersWait = memory_.giveBack(client_, std::exchange(held_, 0));
    reset();
    return othersWait;
}

void FrameReceiver::reset() {
    std::memset(length_, 0, sizeof length_);
    lengthReceived_ = 0;
    body_ = FrameBuffer();
    bodySize_ = capacity_ = received_ = 0;
    waitingForMemory_ = false;
    wanted_ = {};
}

bool FrameReceiver::late(std::chrono::steady_clock::duration wanted) {
    if (lengthReceived_ == 0 || waitingForMemory_) return false;
    wanted_ += wanted;
    return wanted_ > frameDeadline(bodySize_);
}

}  // namespace Quorvendale::Platform::Details
