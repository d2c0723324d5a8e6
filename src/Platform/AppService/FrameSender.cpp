#include "Platform/AppService/FrameSender.h"

#include <sys/socket.h>

#include <cerrno>

#include "Platform/AppService/AppServiceStatistics.h"
#include "Platform/AppService/FrameReceiver.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// The pieces a frame leaves in from `at` on, as many as one sendmsg takes:
// a frame of a few pieces leaves in one system call.
constexpr std::size_t piecesPerSend = 8;

ssize_t sendFrom(int socket, const EncodedFrame& frame, std::size_t at) {
    iovec pieces[piecesPerSend];
    std::size_t count = 0;
    for (; count < piecesPerSend && at < frame.size(); ++count) {
        const std::string_view piece = frame.piece(at);
        pieces[count] = {const_cast<char*>(piece.data()), piece.size()};
        at += piece.size();
    }
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    // MSG_NOSIGNAL: a peer that has gone must not raise SIGPIPE.
    return Posix::retryInterrupted(
        [&] { return ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
}

}  // namespace

FrameSender::Sent FrameSender::send(EncodedFrame frame, bool isAnswer) {
    MutexLock lock(mutex_);
    if (stopped_) return {.peerGone = true};
    memory_.add(client_, frame.size());
    queuedBytes_ += frame.size();
    if (queue_.empty()) frontSince_ = std::chrono::steady_clock::now();
    queue_.push_back({std::move(frame), isAnswer});
    // Behind other frames, it leaves with them, sent by the thread that
    // sends them or by the loop: sending here would put its bytes before
    // theirs.
    if (queue_.size() > 1 || sending_) return {};
    sending_ = true;
    Sent sent = sendQueued();
    sent.queued = !queue_.empty() && !sent.peerGone;
    return sent;
}

FrameSender::Sent FrameSender::flush() {
    MutexLock lock(mutex_);
    // A thread sending now tells the loop what it leaves behind.
    if (stopped_ || sending_ || queue_.empty()) return {};
    sending_ = true;
    return sendQueued();
}

// Sends from the queue until it is empty or the socket is full. The caller
// has taken sending_, which this gives back. The lock is let go during each
// send: the send wakes the peer, which on a busy core may run at once, and
// this thread should not keep the queue locked meanwhile. The frame being
// sent stays at the front of the queue, where only the sender takes it away
// (references into a deque outlive push_back), and a stop() meanwhile
// leaves the queue to the sender.
FrameSender::Sent FrameSender::sendQueued() {
    Sent sent;
    std::size_t freed = 0;
    while (!queue_.empty() && !stopped_) {
        const EncodedFrame& frame = queue_.front().frame;
        const std::size_t at = sentOfFirst_;
        mutex_.unlock();
        const ssize_t count = sendFrom(socket_, frame, at);
        const int error = errno;
        mutex_.lock();
        if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK)) break;
        if (count <= 0) {
            sent.peerGone = true;
            break;
        }
        AppServiceStatistics::sent(static_cast<std::size_t>(count));
        sentOfFirst_ += static_cast<std::size_t>(count);
        if (sentOfFirst_ < frame.size()) continue;
        freed += frame.size();
        queuedBytes_ -= frame.size();
        if (queue_.front().isAnswer) ++sent.answersSent;
        queue_.pop_front();
        sentOfFirst_ = 0;
        frontSince_ = std::chrono::steady_clock::now();
    }
    sending_ = false;
    sent.memoryWanted = memory_.giveBack(client_, freed);
    if (stopped_) sent.memoryWanted = dropQueue() || sent.memoryWanted;
    return sent;
}

bool FrameSender::stop() {
    MutexLock lock(mutex_);
    if (stopped_) return false;
    stopped_ = true;
    ::shutdown(socket_, SHUT_RDWR);
    return sending_ ? false : dropQueue();
}

bool FrameSender::dropQueue() {
    queue_.clear();
    sentOfFirst_ = 0;
    return memory_.giveBack(client_, std::exchange(queuedBytes_, 0));
}

bool FrameSender::hasUnsent() const {
    MutexLock lock(mutex_);
    return !queue_.empty() && !sending_ && !stopped_;
}

bool FrameSender::late(std::chrono::steady_clock::time_point now) const {
    MutexLock lock(mutex_);
    return !queue_.empty() && !stopped_ &&
           now - frontSince_ > frameDeadline(queue_.front().frame.size());
}

std::size_t FrameSender::queuedBytes() const {
    MutexLock lock(mutex_);
    return queuedBytes_;
}

}  // namespace Quorvendale::Platform::Details
