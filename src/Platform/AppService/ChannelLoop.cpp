#include "Platform/AppService/ChannelLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <functional>
#include <system_error>

#include "Platform/AppService/AppServiceChannel.h"
#include "Platform/AppService/FrameMemory.h"
#include "Platform/AppService/RequestScheduler.h"
#include "Platform/Foundation/ThreadPool.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// How often channels holding frame memory are asked whether their peer has
// stopped: often enough that a stalled peer is cut off within a fraction of
// the time it is allowed, seldom enough to cost nothing. An idle process
// does not wake at all.
constexpr int stallCheckMilliseconds = 250;
// The event that stands for wake_ rather than a channel; channel ids start at 1.
constexpr std::uint64_t wakeEvent = 0;
constexpr int eventsPerWait = 64;

int checked(int descriptor, const char* what) {
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), what);
    return descriptor;
}

}  // namespace

ChannelLoop& ChannelLoop::instance() {
    static ChannelLoop* loop = [] {
        auto* made = new ChannelLoop;
        ThreadPool::submit([made] { made->run(); });
        return made;
    }();
    return *loop;
}

ChannelLoop::ChannelLoop()
    : epoll_(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      wake_(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wakeEvent;
    checked(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &event), "epoll_ctl");
}

void ChannelLoop::add(const std::shared_ptr<AppServiceChannel>& channel) {
    {
        MutexLock lock(mutex_);
        added_.push_back(channel);
    }
    wake();
}

void ChannelLoop::reconsider(std::uint64_t channelId) {
    {
        MutexLock lock(mutex_);
        reconsidered_.push_back(channelId);
    }
    wake();
}

void ChannelLoop::memoryReleased() {
    {
        MutexLock lock(mutex_);
        memoryReleased_ = true;
    }
    wake();
}

void ChannelLoop::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

// Runs the loop's turns on this thread until one reads a request and a
// pool thread is idle: the idle thread takes the loop over, and this one
// serves a request, so that a request reaches its handler on the thread
// that read it. (With no thread idle, the loop keeps its thread and the
// requests wait for pool threads, as every other job.)
void ChannelLoop::run() {
    for (;;) {
        RequestScheduler::holdJobs();
        try {
            turn();
        } catch (...) {
            // The loop outlives a turn that could not get memory.
        }
        const std::size_t jobs = RequestScheduler::takeHeldJobs();
        if (jobs == 0) continue;
        std::function<void()> rest = [this] { run(); };
        const bool handedOff = ThreadPool::handOff(rest);
        for (std::size_t job = handedOff ? 1 : 0; job < jobs; ++job) {
            ThreadPool::submit(&RequestScheduler::serveNext);
        }
        if (handedOff) {
            RequestScheduler::serveNext();
            return;
        }
    }
}

// Waits for what is ready, or for the next stall check while frame memory
// is held, and serves it.
void ChannelLoop::turn() {
    using Clock = std::chrono::steady_clock;
    epoll_event events[eventsPerWait];
    const bool holding = FrameMemory::inUse() > 0 || !waitingForMemory_.empty();
    const int ready = Posix::retryInterrupted([&] {
        return ::epoll_wait(epoll_.get(), events, eventsPerWait,
                            holding ? stallCheckMilliseconds : -1);
    });
    for (int i = 0; i < ready; ++i) {
        if (events[i].data.u64 == wakeEvent) {
            std::uint64_t count = 0;
            [[maybe_unused]] const auto got = ::read(wake_.get(), &count, sizeof count);
        } else {
            serve(events[i].data.u64, events[i].events);
        }
    }
    takePosted();
    if (holding && Clock::now() >= nextStallCheck_) {
        checkStalled();
        resumeWaitingForMemory();
        nextStallCheck_ = Clock::now() + std::chrono::milliseconds(stallCheckMilliseconds);
    }
}

// What other threads asked for since the last turn.
void ChannelLoop::takePosted() {
    std::vector<std::shared_ptr<AppServiceChannel>> added;
    std::vector<std::uint64_t> reconsidered;
    bool memoryReleased = false;
    {
        MutexLock lock(mutex_);
        added.swap(added_);
        reconsidered.swap(reconsidered_);
        memoryReleased = std::exchange(memoryReleased_, false);
    }
    for (const auto& channel : added) {
        watched_[channel->id()] = Watched{.channel = channel, .socket = channel->socket()};
        update(channel->id());
    }
    for (const std::uint64_t id : reconsidered) update(id);
    if (memoryReleased) resumeWaitingForMemory();
}

// Makes epoll watch what the channel now waits for, and forgets a channel
// that has ended. The channel is held meanwhile, so its socket stays open; a
// channel already destroyed took its socket out of epoll itself.
void ChannelLoop::update(std::uint64_t id) {
    const auto found = watched_.find(id);
    if (found == watched_.end()) return;
    Watched& watched = found->second;
    const std::shared_ptr<AppServiceChannel> channel = watched.channel.lock();
    AppServiceChannel::Interest interest =
        channel ? channel->interest() : AppServiceChannel::Interest{.ended = true};
    if (interest.peerGone) {
        channel->close(true);
        interest = {.ended = true};
    }
    if (interest.ended) {
        if (channel) {
            if (watched.events != 0) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, watched.socket, nullptr);
            channel->forgetPartialFrame();
        }
        watched_.erase(found);
        return;
    }
    if (interest.waitingForMemory && !watched.waitingForMemory) {
        watched.waitingForMemory = true;
        waitingForMemory_.push_back(id);
    }
    const std::uint32_t events = (interest.read ? EPOLLIN : 0u) | (interest.write ? EPOLLOUT : 0u);
    if (events == watched.events) return;
    // A socket waited on for nothing is out of epoll: a hang-up, which epoll
    // reports whatever it is asked, would otherwise wake the loop without end
    // while the channel is at its limit of requests.
    int failed = 0;
    if (events == 0) {
        failed = ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, watched.socket, nullptr);
    } else {
        epoll_event event{};
        event.events = events;
        event.data.u64 = id;
        failed = ::epoll_ctl(epoll_.get(), watched.events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD,
                             watched.socket, &event);
    }
    watched.events = events;
    // A socket that cannot be watched is a connection that cannot be served.
    if (failed != 0) channel->close(true);
}

void ChannelLoop::forget(int socket) { ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, socket, nullptr); }

void ChannelLoop::serve(std::uint64_t id, std::uint32_t events) {
    const auto found = watched_.find(id);
    if (found == watched_.end()) return;
    if (const auto channel = found->second.channel.lock()) {
        try {
            if (events & EPOLLOUT) channel->flush();
            if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) channel->readSome();
        } catch (...) {
            // The loop outlives whatever a completion handler it ran did
            // wrong, and whatever memory a request could not get.
        }
    }
    update(id);
}

void ChannelLoop::resumeWaitingForMemory() {
    std::deque<std::uint64_t> waiting;
    waiting.swap(waitingForMemory_);
    for (const std::uint64_t id : waiting) {
        const auto found = watched_.find(id);
        if (found == watched_.end()) continue;
        found->second.waitingForMemory = false;
        serve(id, EPOLLIN);
    }
}

void ChannelLoop::checkStalled() {
    const bool othersWait = !waitingForMemory_.empty();
    std::vector<std::shared_ptr<AppServiceChannel>> channels;
    for (const auto& [id, watched] : watched_) {
        if (auto channel = watched.channel.lock()) channels.push_back(std::move(channel));
    }
    for (const auto& channel : channels) channel->closeIfStalled(othersWait);
}

}  // namespace Quorvendale::Platform::Details
