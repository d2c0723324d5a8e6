// Mutex and MutexLock: a std::mutex that clang's thread-safety analysis can
// follow. A member a mutex guards says so (QV_GUARDED_BY), a function that
// must be called with a lock held says so (QV_REQUIRES), and the clang builds
// turn every access the analysis cannot prove safe into a compile error.
// Where two locks nest, the order is written beside the members.
#pragma once

#include <mutex>

#if defined(__clang__)
#define QV_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define QV_THREAD_ANNOTATION(attribute)
#endif

#define QV_CAPABILITY(name) QV_THREAD_ANNOTATION(capability(name))
#define QV_SCOPED_CAPABILITY QV_THREAD_ANNOTATION(scoped_lockable)
#define QV_GUARDED_BY(mutex) QV_THREAD_ANNOTATION(guarded_by(mutex))
#define QV_REQUIRES(...) QV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QV_EXCLUDES(...) QV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QV_ACQUIRE(...) QV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QV_RELEASE(...) QV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace Quorvendale::Platform {

class QV_CAPABILITY("mutex") Mutex {
public:
    void lock() QV_ACQUIRE() { mutex_.lock(); }
    void unlock() QV_RELEASE() { mutex_.unlock(); }

private:
    friend class MutexLock;
    std::mutex mutex_;
};

// Holds the mutex from construction to destruction, except between an
// unlock() and the next lock().
class QV_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) QV_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    ~MutexLock() QV_RELEASE() {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() QV_RELEASE() { lock_.unlock(); }
    void lock() QV_ACQUIRE() { lock_.lock(); }

    // What std::condition_variable waits with. The analysis counts the mutex
    // as held across the wait, which is what the code after the wait sees.
    std::unique_lock<std::mutex>& forWaiting() { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace Quorvendale::Platform
