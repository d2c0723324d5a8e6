// ChannelLoop: waits on the sockets of a set of app-service connections, one
// thread at a time. Its turn reads each frame as it arrives and hands a
// request to the RequestScheduler (or completes the operation an answer is
// for), and sends what a channel could not send at once as the peer reads.
// A turn that read requests gives the loop to an idle pool thread and
// serves one itself, so that, when a thread is idle, a request is handled
// on the thread that read it; the loop thus moves from thread to thread.
// Sockets are watched level-triggered, and a channel reads at most one
// frame (or a slice of a large one) per turn, so peers that send a lot take
// turns with those that send a little. Thousands of connections cost a
// descriptor and a few hundred bytes each, not a thread.
//
// The loop owns the memory budget and the scheduler of its channels. Only
// its turn (the capability `turn`) changes what epoll watches and touches
// a channel's receiver; other threads post what changed, and the turn
// looks again.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Platform/AppService/MemoryBudget.h"
#include "Platform/AppService/RequestScheduler.h"
#include "Platform/Foundation/Mutex.h"
#include "Posix/FileDescriptor.h"
#include "Posix/WakeUp.h"

namespace Quorvendale::Platform::Details {

class AppServiceChannel;
struct IncomingRequest;

// Held by the thread running the loop's turn; not a lock (one thread at a
// time runs the turn by construction), but the analysis checks that only
// the turn calls what is marked as the turn's.
class QV_CAPABILITY("loop turn") LoopTurn {
public:
    void enter() QV_ACQUIRE() {}
    void leave() QV_RELEASE() {}
    // For code the turn reaches through a call the analysis cannot follow;
    // the caller has checked that it runs on the turn's thread.
    void assertEntered() const QV_THREAD_ANNOTATION(assert_capability(this)) {}
};

class ChannelLoop : public std::enable_shared_from_this<ChannelLoop> {
public:
    struct Settings {
        // Requests of one client that run at once: one per core. More would
        // only take cores from other clients; a handler that waits takes a
        // deferral and returns, and does not count.
        std::size_t runningPerClient = std::max(2u, std::thread::hardware_concurrency());
        MemoryBudget::Limits memory{};
    };

    // A loop running on the runtime's pool.
    static std::shared_ptr<ChannelLoop> start(Settings settings);
    explicit ChannelLoop(Settings settings);
    ~ChannelLoop();
    ChannelLoop(const ChannelLoop&) = delete;
    ChannelLoop& operator=(const ChannelLoop&) = delete;

    // Ends every channel and waits until no thread runs the loop. Not from
    // a turn or a handler.
    void stop();

    // Any thread: watch the channel until it has ended.
    void watch(const std::shared_ptr<AppServiceChannel>& channel);
    // Any thread: what the channel waits for has changed.
    void lookAgain(ChannelId channel);
    // Any thread: memory came back while a client waited for it.
    void memoryCameBack();
    // Any thread: work for the pool (jobs that serve requests, handlers of
    // answered operations). During a turn it is held for the turn's end,
    // where the thread gives the loop to an idle one and does the first
    // piece itself: work the loop finds costs no extra thread switch, and
    // a piece that blocks never stalls the loop.
    void giveJobs(std::size_t jobs);
    void giveWork(std::function<void()> work);

    // Any thread: runs `then` once the bytes fit in the share of the
    // request's client, counted as the request's own (at once, or from a
    // later turn on the pool); never, once the request's connection ends.
    void admit(const std::shared_ptr<IncomingRequest>& request, std::size_t bytes,
               std::function<void()> then);

    MemoryBudget& memory() noexcept { return memory_; }
    RequestScheduler& scheduler() noexcept { return scheduler_; }

    LoopTurn turn;

private:
    struct Admission {
        std::shared_ptr<IncomingRequest> request;
        std::size_t bytes;
        std::function<void()> then;
    };
    struct Watched {
        std::shared_ptr<AppServiceChannel> channel;
        std::uint32_t events = 0;  // what epoll watches for; none: not in epoll
    };

    void run();
    // False once the loop is stopping.
    bool turnOnce() QV_REQUIRES(turn);
    void endEveryChannel() QV_REQUIRES(turn);
    bool onTurnThread() const;
    void takePosted() QV_REQUIRES(turn);
    void update(ChannelId id) QV_REQUIRES(turn);
    void ready(ChannelId id, std::uint32_t events) QV_REQUIRES(turn);
    void resumeWaitingForMemory() QV_REQUIRES(turn);
    void retryAdmissions() QV_REQUIRES(turn);
    bool tryAdmit(Admission& admission);
    void cutOffLatePeers(std::chrono::steady_clock::duration wanted) QV_REQUIRES(turn);
    void serveOne();

    MemoryBudget memory_;
    RequestScheduler scheduler_;
    const Posix::FileDescriptor epoll_;
    Posix::WakeUp wake_;

    Mutex mutex_;
    std::vector<std::shared_ptr<AppServiceChannel>> added_ QV_GUARDED_BY(mutex_);
    std::vector<ChannelId> changed_ QV_GUARDED_BY(mutex_);
    bool memoryCameBack_ QV_GUARDED_BY(mutex_) = false;
    std::vector<Admission> admissions_ QV_GUARDED_BY(mutex_);
    bool stopping_ QV_GUARDED_BY(mutex_) = false;
    bool running_ QV_GUARDED_BY(mutex_) = false;  // a thread runs the loop
    std::condition_variable stopped_;
    // The thread running the turn now, so that jobs given during it are held.
    std::atomic<std::thread::id> turnThread_{};

    std::unordered_map<ChannelId, Watched> watched_ QV_GUARDED_BY(turn);
    std::vector<std::function<void()>> heldWork_ QV_GUARDED_BY(turn);
    std::chrono::steady_clock::time_point lastLook_ QV_GUARDED_BY(turn);
};

}  // namespace Quorvendale::Platform::Details
