// ChannelLoop: the one thread at a time of a process that waits on the
// sockets of all its app-service connections. It reads each frame as it
// arrives and queues a request for the pool (or completes the operation a
// response answers), and it sends what a channel could not send at once as
// the peer reads. A turn that read a request gives the loop to an idle pool
// thread and serves a request itself, so a request is read and handled on
// one thread; the loop thus moves from thread to thread. Sockets
// are watched level-triggered, and a channel reads at most one frame (or a
// slice of a large one) per turn, so peers that send a lot take turns with
// those that send a little. Thousands of connections cost a descriptor and a
// few hundred bytes each, not a thread.
//
// Only the loop (the thread running its turn) changes what epoll watches:
// another thread that changes what a channel waits for (an answer queued, a
// request answered, the channel closed) asks the loop to reconsider it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "Platform/Foundation/Mutex.h"
#include "Posix/FileDescriptor.h"

namespace Quorvendale::Platform::Details {

class AppServiceChannel;

class ChannelLoop {
public:
    // The process's loop, started on first use and never destroyed: channels
    // may still call it while the process exits.
    static ChannelLoop& instance();

    // Watches the channel's socket until the channel has ended.
    void add(const std::shared_ptr<AppServiceChannel>& channel);
    // What the channel waits for has changed.
    void reconsider(std::uint64_t channelId);
    // Takes the socket out of epoll; for a channel's destructor, before its
    // socket closes.
    void forget(int socket);
    // Frame memory came free: channels that waited for it may read on.
    void memoryReleased();

private:
    struct Watched {
        std::weak_ptr<AppServiceChannel> channel;
        int socket = -1;
        std::uint32_t events = 0;  // what epoll watches for; none: not in epoll
        bool waitingForMemory = false;
    };

    ChannelLoop();
    void run();
    void turn();
    void takePosted();
    void update(std::uint64_t id);
    void serve(std::uint64_t id, std::uint32_t events);
    void resumeWaitingForMemory();
    void checkStalled();
    void wake();

    const Posix::FileDescriptor epoll_;
    const Posix::FileDescriptor wake_;

    Mutex mutex_;
    std::vector<std::shared_ptr<AppServiceChannel>> added_ QV_GUARDED_BY(mutex_);
    std::vector<std::uint64_t> reconsidered_ QV_GUARDED_BY(mutex_);
    bool memoryReleased_ QV_GUARDED_BY(mutex_) = false;

    // The running turn's own; handed from thread to thread through the pool.
    std::map<std::uint64_t, Watched> watched_;
    std::deque<std::uint64_t> waitingForMemory_;
    std::chrono::steady_clock::time_point nextStallCheck_;
};

}  // namespace Quorvendale::Platform::Details
