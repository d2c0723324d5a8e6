#include "Platform/Foundation/ThreadPool.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace Quorvendale::Platform {
namespace {

constexpr unsigned maximumThreads = 64;

class Pool {
public:
    void submit(std::function<void()> job) {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
        if (idle_ < jobs_.size() && threads_ < maximumThreads) {
            ++threads_;
            std::thread([this] { work(); }).detach();
        } else {
            wake_.notify_one();
        }
    }

private:
    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            ++idle_;
            wake_.wait(lock, [this] { return !jobs_.empty(); });
            --idle_;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            try {
                job();
            } catch (...) {
                // A runtime thread outlives whatever one handler did wrong.
            }
            job = nullptr;  // the job's captures die outside the lock
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    unsigned threads_ = 0;
    std::size_t idle_ = 0;
};

// Never destroyed: its threads may still be running jobs while the process
// exits, and a destroyed queue under them would be worse than a leak.
Pool& pool() {
    static Pool* instance = new Pool;
    return *instance;
}

}  // namespace

void ThreadPool::submit(std::function<void()> job) { pool().submit(std::move(job)); }

}  // namespace Quorvendale::Platform
