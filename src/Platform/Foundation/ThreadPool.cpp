#include "Platform/Foundation/ThreadPool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <string>
#include <thread>

#include "Platform/Foundation/Log.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform {
namespace {

// Threads follow the machine: enough per core that handlers blocked on a
// slow disk leave others running, few enough that a burst of work does not
// become a burst of threads. Jobs past them wait their turn.
unsigned maximumThreads() {
    static const unsigned threads = std::max(16u, 8 * std::thread::hardware_concurrency());
    return threads;
}

class Pool {
public:
    void submit(std::function<void()> job) {
        bool startThread = false;
        {
            MutexLock lock(mutex_);
            jobs_.push_back(std::move(job));
            startThread = idle_ < jobs_.size() && threads_ < maximumThreads();
            if (startThread) ++threads_;
        }
        // Outside the lock: a thread woken while it is held would run only
        // to wait for it, two switches instead of one on a busy core.
        if (startThread) {
            std::thread([this] { work(); }).detach();
        } else {
            wake_.notify_one();
        }
    }

    bool handOff(std::function<void()>& job) {
        {
            MutexLock lock(mutex_);
            if (idle_ <= jobs_.size()) return false;
            jobs_.push_front(std::move(job));
        }
        wake_.notify_one();
        return true;
    }

private:
    void work() {
        MutexLock lock(mutex_);
        for (;;) {
            ++idle_;
            while (jobs_.empty()) wake_.wait(lock.forWaiting());
            --idle_;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            // A runtime thread outlives whatever one job did wrong, and says so.
            try {
                job();
            } catch (const std::exception& error) {
                logLine(LogLevel::Failure, std::string("a job of the runtime's pool failed: ") +
                                               error.what());
            } catch (...) {
                logLine(LogLevel::Failure,
                        "a job of the runtime's pool failed with an exception of unknown type");
            }
            job = nullptr;  // the job's captures die outside the lock
            lock.lock();
        }
    }

    Mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_ QV_GUARDED_BY(mutex_);
    unsigned threads_ QV_GUARDED_BY(mutex_) = 0;
    std::size_t idle_ QV_GUARDED_BY(mutex_) = 0;
};

// Never destroyed: its threads may still be running jobs while the process
// exits, and a destroyed queue under them would be worse than a leak.
Pool& pool() {
    static Pool* instance = new Pool;
    return *instance;
}

}  // namespace

void ThreadPool::submit(std::function<void()> job) { pool().submit(std::move(job)); }

bool ThreadPool::handOff(std::function<void()>& job) { return pool().handOff(job); }

}  // namespace Quorvendale::Platform
