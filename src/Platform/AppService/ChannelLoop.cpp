#include "Platform/AppService/ChannelLoop.h"

#include <sys/epoll.h>

#include <cstring>
#include <functional>
#include <system_error>

#include "Platform/AppService/AppServiceChannel.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Platform/Foundation/Log.h"
#include "Platform/Foundation/ThreadPool.h"
#include "Posix/SystemCall.h"

namespace Quorvendale::Platform::Details {
namespace {

// How often, while the loop holds memory for frames, it looks for peers
// that let a frame pass its deadline: often enough that a cut-off comes
// within a fraction of the grace, seldom enough to cost nothing. An idle
// loop does not wake at all.
constexpr std::chrono::milliseconds lookInterval{250};
// The event that stands for wake_ rather than a channel; channel ids start at 1.
constexpr std::uint64_t wakeEvent = 0;
constexpr int eventsPerWait = 64;

int checked(int descriptor, const char* what) {
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), what);
    return descriptor;
}

}  // namespace

std::shared_ptr<ChannelLoop> ChannelLoop::start(Settings settings) {
    auto loop = std::make_shared<ChannelLoop>(settings);
    {
        MutexLock lock(loop->mutex_);
        loop->running_ = true;
    }
    ThreadPool::submit([loop] { loop->run(); });
    return loop;
}

ChannelLoop::ChannelLoop(Settings settings)
    : memory_(settings.memory),
      scheduler_(settings.runningPerClient, memory_),
      epoll_(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wakeEvent;
    checked(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.descriptor(), &event), "epoll_ctl");
}

ChannelLoop::~ChannelLoop() = default;

void ChannelLoop::stop() {
    {
        MutexLock lock(mutex_);
        stopping_ = true;
    }
    wake_.signal();
    MutexLock lock(mutex_);
    while (running_) stopped_.wait(lock.forWaiting());
}

void ChannelLoop::watch(const std::shared_ptr<AppServiceChannel>& channel) {
    {
        MutexLock lock(mutex_);
        added_.push_back(channel);
    }
    wake_.signal();
}

void ChannelLoop::lookAgain(ChannelId channel) {
    {
        MutexLock lock(mutex_);
        changed_.push_back(channel);
    }
    wake_.signal();
}

void ChannelLoop::memoryCameBack() {
    {
        MutexLock lock(mutex_);
        memoryCameBack_ = true;
    }
    wake_.signal();
}

bool ChannelLoop::onTurnThread() const {
    return turnThread_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

bool ChannelLoop::tryAdmit(Admission& admission) {
    if (!memory_.tryTake(admission.request->client, admission.bytes)) return false;
    admission.request->admitted += admission.bytes;
    return true;
}

void ChannelLoop::admit(const std::shared_ptr<IncomingRequest>& request, std::size_t bytes,
                        std::function<void()> then) {
    // The work of a connection that has ended is dropped (its deferral with
    // it, which refuses the request): nobody would read the answer.
    if (request->channel->ended()) return;
    Admission admission{request, std::min(bytes, memory_.clientShare()), std::move(then)};
    if (admission.bytes == 0 || tryAdmit(admission)) {
        admission.then();
        return;
    }
    {
        MutexLock lock(mutex_);
        admissions_.push_back(std::move(admission));
        // A refusal is reported to whoever gives memory back next; should
        // that have happened between the try and now, look at once.
        memoryCameBack_ = true;
    }
    wake_.signal();
}

// Admissions in the order they came, each once memory is back for it.
void ChannelLoop::retryAdmissions() {
    std::vector<Admission> waiting;
    {
        MutexLock lock(mutex_);
        waiting.swap(admissions_);
    }
    std::vector<Admission> still;
    for (Admission& admission : waiting) {
        if (admission.request->channel->ended()) continue;
        if (tryAdmit(admission)) {
            giveWork(std::move(admission.then));
        } else {
            still.push_back(std::move(admission));
        }
    }
    MutexLock lock(mutex_);
    admissions_.insert(admissions_.begin(), std::make_move_iterator(still.begin()),
                       std::make_move_iterator(still.end()));
}

void ChannelLoop::giveJobs(std::size_t jobs) {
    for (std::size_t job = 0; job < jobs; ++job) {
        giveWork([self = shared_from_this()] { self->serveOne(); });
    }
}

void ChannelLoop::giveWork(std::function<void()> work) {
    if (onTurnThread()) {
        turn.assertEntered();
        heldWork_.push_back(std::move(work));
    } else {
        ThreadPool::submit(std::move(work));
    }
}

// Runs turns on this thread until one finds work and a pool thread is
// idle: the idle thread takes the loop over, and this one does the work's
// first piece (serves a request, say). With no thread idle, the loop keeps
// its thread and the work waits for pool threads, as every other job.
void ChannelLoop::run() {
    turn.enter();
    turnThread_.store(std::this_thread::get_id());
    for (;;) {
        if (!turnOnce()) {
            endEveryChannel();
            turnThread_.store({});
            turn.leave();
            MutexLock lock(mutex_);
            running_ = false;
            stopped_.notify_all();
            return;
        }
        if (heldWork_.empty()) continue;
        std::vector<std::function<void()>> work = std::exchange(heldWork_, {});
        turnThread_.store({});
        turn.leave();
        std::function<void()> rest = [self = shared_from_this()] { self->run(); };
        const bool handedOff = ThreadPool::handOff(rest);
        for (std::size_t piece = handedOff ? 1 : 0; piece < work.size(); ++piece) {
            ThreadPool::submit(std::move(work[piece]));
        }
        if (handedOff) {
            work.front()();
            return;
        }
        turn.enter();
        turnThread_.store(std::this_thread::get_id());
    }
}

// One job: the next request the scheduler picks.
void ChannelLoop::serveOne() {
    std::size_t jobs = 0;
    const std::shared_ptr<IncomingRequest> request = scheduler_.next(jobs);
    giveJobs(jobs);
    if (!request) return;
    request->channel->raise(request);
    giveJobs(scheduler_.finished(*request));
}

// Waits for what is ready, or for the next look at the deadlines while
// memory is held, and serves it.
bool ChannelLoop::turnOnce() {
    using Clock = std::chrono::steady_clock;
    epoll_event events[eventsPerWait];
    const bool framesMove = memory_.held() > 0;
    const int ready = Posix::retryInterrupted([&] {
        return ::epoll_wait(epoll_.get(), events, eventsPerWait,
                            framesMove ? static_cast<int>(lookInterval.count()) : -1);
    });
    for (int i = 0; i < ready; ++i) {
        if (events[i].data.u64 == wakeEvent) {
            wake_.drain();
        } else {
            this->ready(events[i].data.u64, events[i].events);
        }
    }
    takePosted();
    {
        MutexLock lock(mutex_);
        if (stopping_) return false;
    }
    const auto now = Clock::now();
    if (!framesMove) {
        lastLook_ = now;
    } else if (now - lastLook_ >= lookInterval) {
        // A loop that could not look (a long turn) does not charge peers for it.
        cutOffLatePeers(std::min<Clock::duration>(now - lastLook_, 2 * lookInterval));
        lastLook_ = now;
    }
    return true;
}

// What other threads asked for since the last turn.
void ChannelLoop::takePosted() {
    std::vector<std::shared_ptr<AppServiceChannel>> added;
    std::vector<ChannelId> changed;
    bool memoryCameBack = false;
    {
        MutexLock lock(mutex_);
        added.swap(added_);
        changed.swap(changed_);
        memoryCameBack = std::exchange(memoryCameBack_, false);
    }
    for (const auto& channel : added) {
        watched_[channel->id()] = Watched{.channel = channel};
        update(channel->id());
    }
    for (const ChannelId id : changed) update(id);
    // A channel that changed may have ended, and its admissions with it.
    if (memoryCameBack || !changed.empty()) retryAdmissions();
    if (memoryCameBack) {
        resumeWaitingForMemory();
        giveJobs(scheduler_.resume());
    }
}

// Makes epoll watch what the channel now waits for, and lets go of a
// channel that has ended: only then may it be destroyed, so its socket is
// out of epoll before it closes.
void ChannelLoop::update(ChannelId id) {
    const auto found = watched_.find(id);
    if (found == watched_.end()) return;
    Watched& watched = found->second;
    AppServiceChannel& channel = *watched.channel;
    const AppServiceChannel::Interest interest = channel.interest(turn);
    if (interest.ended) {
        if (watched.events != 0) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, channel.socket(), nullptr);
        channel.forgetPartialFrame(turn);
        watched_.erase(found);
        return;
    }
    // A socket waited on for nothing (its channel at its limit of requests,
    // or waiting for memory) is still watched for its peer's hang-up, once
    // (edge-triggered): level-triggered, the hang-up would wake the loop
    // without end; unwatched, a peer that dies while its client waits for
    // memory would hold that memory for ever.
    const std::uint32_t events = interest.read || interest.write
                                     ? (interest.read ? EPOLLIN : 0u) | (interest.write ? EPOLLOUT : 0u)
                                     : EPOLLRDHUP | EPOLLET;
    if (events == watched.events) return;
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    const int failed = ::epoll_ctl(epoll_.get(), watched.events == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD,
                                   channel.socket(), &event);
    watched.events = events;
    if (failed != 0) {
        logLine(LogLevel::Failure,
                std::string("closing an app-service connection the loop cannot watch: ") +
                std::strerror(errno));
        channel.close(AppServiceChannel::EndedBy::Runtime);
    }
}

void ChannelLoop::ready(ChannelId id, std::uint32_t events) {
    const auto found = watched_.find(id);
    if (found == watched_.end()) return;
    const std::shared_ptr<AppServiceChannel> channel = found->second.channel;
    // Gone both ways while the channel read nothing: what it still holds
    // for the peer could never reach it.
    if ((events & EPOLLHUP) && !channel->interest(turn).read) {
        channel->close(AppServiceChannel::EndedBy::Runtime);
        update(id);
        return;
    }
    const char* doing = "sending to";
    try {
        if (events & EPOLLOUT) channel->flush();
        doing = "receiving from";
        if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) channel->receive(turn);
    } catch (const std::exception& error) {
        logLine(LogLevel::Failure,
                std::string("closing an app-service connection after an error ") + doing +
                " it: " + error.what());
        channel->close(AppServiceChannel::EndedBy::Runtime);
    }
    update(id);
}

void ChannelLoop::resumeWaitingForMemory() {
    std::vector<ChannelId> waiting;
    for (const auto& [id, watched] : watched_) {
        if (watched.channel->waitingForMemory(turn)) waiting.push_back(id);
    }
    for (const ChannelId id : waiting) ready(id, EPOLLIN);
}

void ChannelLoop::cutOffLatePeers(std::chrono::steady_clock::duration wanted) {
    std::vector<ChannelId> ids;
    ids.reserve(watched_.size());
    for (const auto& [id, watched] : watched_) ids.push_back(id);
    for (const ChannelId id : ids) {
        const auto found = watched_.find(id);
        if (found == watched_.end()) continue;
        found->second.channel->cutOffIfLate(turn, wanted);
        update(id);
    }
}

void ChannelLoop::endEveryChannel() {
    for (const auto& [id, watched] : watched_) {
        watched.channel->close(AppServiceChannel::EndedBy::Runtime);
        if (watched.events != 0) {
            ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, watched.channel->socket(), nullptr);
        }
        watched.channel->forgetPartialFrame(turn);
    }
    watched_.clear();
}

}  // namespace Quorvendale::Platform::Details
