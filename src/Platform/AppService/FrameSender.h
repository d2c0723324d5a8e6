// FrameSender: the frames a connection has to send, and the one thread at a
// time that sends them. A frame goes out as far as the socket takes it at
// once, from whichever thread wrote it; the rest waits in the queue, which
// the loop sends as the peer reads. Queued bytes count against the client's
// memory share until they have left. The peer must keep a floor rate: a
// frame that stays at the front of the queue past its deadline (a grace
// plus its size at the floor rate) means the peer has stopped reading.
#pragma once

#include <chrono>
#include <deque>

#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/AppService/MemoryBudget.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform::Details {

class FrameSender {
public:
    // What a send or a flush did, for the channel to act on.
    struct Sent {
        bool peerGone = false;       // a send failed: the connection is over
        bool queued = false;         // a queue began: the loop must watch for room
        std::size_t answersSent = 0; // answers that left whole
        bool memoryWanted = false;   // memory came back while a client waited for it
    };

    FrameSender(int socket, MemoryBudget& memory, ClientId client)
        : socket_(socket), memory_(memory), client_(client) {}
    FrameSender(const FrameSender&) = delete;
    FrameSender& operator=(const FrameSender&) = delete;
    ~FrameSender() { stop(); }

    // Sends the frame, or queues what the socket does not take at once.
    // An answer (a response or a refusal) is counted when it has left.
    Sent send(EncodedFrame frame, bool isAnswer);
    // Sends what the socket takes now; for the loop, when it has room.
    Sent flush();
    // Sends nothing more: what waits is dropped (now, or by the thread
    // sending now once its send returns) and the peer sees the stream end.
    // True when the memory it gives back was wanted.
    bool stop();

    bool hasUnsent() const;  // frames wait for room in the socket, and nobody sends them
    // True when the frame at the front has waited past its deadline.
    bool late(std::chrono::steady_clock::time_point now) const;
    std::size_t queuedBytes() const;

private:
    struct Outgoing {
        EncodedFrame frame;
        bool isAnswer;
    };

    Sent sendQueued() QV_REQUIRES(mutex_);
    bool dropQueue() QV_REQUIRES(mutex_);

    const int socket_;
    MemoryBudget& memory_;
    const ClientId client_;

    // One thread at a time sends (sending_), from the front of the queue,
    // so frames' bytes stay together on the socket and in order.
    mutable Mutex mutex_;
    std::deque<Outgoing> queue_ QV_GUARDED_BY(mutex_);
    std::size_t sentOfFirst_ QV_GUARDED_BY(mutex_) = 0;
    std::size_t queuedBytes_ QV_GUARDED_BY(mutex_) = 0;
    bool sending_ QV_GUARDED_BY(mutex_) = false;
    bool stopped_ QV_GUARDED_BY(mutex_) = false;
    // When the frame now at the front got there.
    std::chrono::steady_clock::time_point frontSince_ QV_GUARDED_BY(mutex_);
};

}  // namespace Quorvendale::Platform::Details
