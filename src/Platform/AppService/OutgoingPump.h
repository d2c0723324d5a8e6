// OutgoingPump: the one thread of a process that sends what app-service
// connections could not send at once. A channel writes without blocking and
// queues what the socket would not take; it then asks the pump to watch its
// socket, and the pump sends the rest as the peer reads, so that no thread
// that other connections need ever waits on one peer. While it watches, the
// pump also asks each channel, a few times a second, whether its peer has
// stopped reading.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Platform/Foundation/Mutex.h"
#include "Posix/FileDescriptor.h"

namespace Quorvendale::Platform::Details {

class AppServiceChannel;

class OutgoingPump {
public:
    // The process's pump, started on first use and never destroyed: channels
    // may still call it while the process exits.
    static OutgoingPump& instance();

    // Sends the channel's queue as its socket becomes writable; until
    // forget(), the channel is flushed once per call to watch or rearm.
    void watch(std::uint64_t id, int socket, std::weak_ptr<AppServiceChannel> channel);
    void rearm(std::uint64_t id, int socket);
    // Must come before the socket is closed.
    void forget(std::uint64_t id, int socket);

private:
    OutgoingPump();
    void run();
    void arm(std::uint64_t id, int socket, bool added);
    std::shared_ptr<AppServiceChannel> find(std::uint64_t id);
    void checkStalled();

    const Posix::FileDescriptor epoll_;
    // Wakes the pump when it starts watching, so that it begins its checks.
    const Posix::FileDescriptor wake_;
    Mutex mutex_;
    std::map<std::uint64_t, std::weak_ptr<AppServiceChannel>> watched_ QV_GUARDED_BY(mutex_);
};

}  // namespace Quorvendale::Platform::Details
