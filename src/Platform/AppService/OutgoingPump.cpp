#include "Platform/AppService/OutgoingPump.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <chrono>
#include <system_error>
#include <thread>
#include <vector>

#include "Platform/AppService/AppServiceChannel.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// How often a watched channel is asked whether its peer has stopped reading:
// often enough that a stalled peer is cut off within a fraction of the time
// it is allowed, seldom enough to cost nothing.
constexpr int stallCheckMilliseconds = 250;
// The event that stands for wake_ rather than a channel; channel ids start at 1.
constexpr std::uint64_t wakeEvent = 0;

int checked(int descriptor, const char* what) {
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), what);
    return descriptor;
}

}  // namespace

OutgoingPump& OutgoingPump::instance() {
    static OutgoingPump* pump = [] {
        auto* made = new OutgoingPump;
        std::thread([made] { made->run(); }).detach();
        return made;
    }();
    return *pump;
}

OutgoingPump::OutgoingPump()
    : epoll_(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      wake_(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wakeEvent;
    checked(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &event), "epoll_ctl");
}

void OutgoingPump::watch(std::uint64_t id, int socket, std::weak_ptr<AppServiceChannel> channel) {
    bool first = false;
    {
        MutexLock lock(mutex_);
        first = watched_.empty();
        watched_[id] = std::move(channel);
    }
    arm(id, socket, true);
    if (first) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
    }
}

void OutgoingPump::rearm(std::uint64_t id, int socket) { arm(id, socket, false); }

// One-shot: a socket that stays writable while its queue is empty would
// otherwise wake the pump without end.
void OutgoingPump::arm(std::uint64_t id, int socket, bool added) {
    epoll_event event{};
    event.events = EPOLLOUT | EPOLLONESHOT;
    event.data.u64 = id;
    // A failure leaves the queue where it is; the stall check then ends the
    // connection, as for a peer that does not read.
    ::epoll_ctl(epoll_.get(), added ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, socket, &event);
}

void OutgoingPump::forget(std::uint64_t id, int socket) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, socket, nullptr);
    MutexLock lock(mutex_);
    watched_.erase(id);
}

std::shared_ptr<AppServiceChannel> OutgoingPump::find(std::uint64_t id) {
    MutexLock lock(mutex_);
    const auto found = watched_.find(id);
    return found == watched_.end() ? nullptr : found->second.lock();
}

void OutgoingPump::run() {
    using Clock = std::chrono::steady_clock;
    auto nextCheck = Clock::now();
    epoll_event events[64];
    for (;;) {
        bool watching = false;
        {
            MutexLock lock(mutex_);
            watching = !watched_.empty();
        }
        const int ready = Posix::retryInterrupted([&] {
            return ::epoll_wait(epoll_.get(), events, 64, watching ? stallCheckMilliseconds : -1);
        });
        for (int i = 0; i < ready; ++i) {
            if (events[i].data.u64 == wakeEvent) {
                std::uint64_t count = 0;
                [[maybe_unused]] const auto got = ::read(wake_.get(), &count, sizeof count);
            } else if (const auto channel = find(events[i].data.u64)) {
                channel->flush();
            }
        }
        if (Clock::now() >= nextCheck) {
            checkStalled();
            nextCheck = Clock::now() + std::chrono::milliseconds(stallCheckMilliseconds);
        }
    }
}

void OutgoingPump::checkStalled() {
    std::vector<std::shared_ptr<AppServiceChannel>> channels;
    {
        MutexLock lock(mutex_);
        for (const auto& [id, weak] : watched_) {
            if (auto channel = weak.lock()) channels.push_back(std::move(channel));
        }
    }
    for (const auto& channel : channels) channel->closeIfStalled();
}

}  // namespace Quorvendale::Platform::Details
