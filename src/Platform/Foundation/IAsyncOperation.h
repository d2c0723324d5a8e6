// IAsyncOperation<T>: an operation that completes once, with a result, an
// error or a cancellation. Copies share one operation.
//
// Completed(handler) takes one handler. It runs exactly once: on the thread
// that completes the operation (or wherever the producer sends it: the
// app-service loop runs it off its own turn), or at once on the registering
// thread if the operation has already ended.
//
// The producer side is AsyncCompletion, the runtime's own.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "Platform/Foundation/HResultError.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform {

enum class AsyncStatus { Started = 0, Completed = 1, Canceled = 2, Error = 3 };

template <class T>
class IAsyncOperation;

namespace Details {

template <class T>
struct AsyncState {
    Mutex mutex;
    std::condition_variable ended;
    AsyncStatus status QV_GUARDED_BY(mutex) = AsyncStatus::Started;
    std::optional<T> result QV_GUARDED_BY(mutex);
    HResultError error QV_GUARDED_BY(mutex){S_OK};
    std::function<void(const IAsyncOperation<T>&, AsyncStatus)> completed QV_GUARDED_BY(mutex);
    bool handlerTaken QV_GUARDED_BY(mutex) = false;
};

}  // namespace Details

template <class T>
class IAsyncOperation {
public:
    using CompletedHandler = std::function<void(const IAsyncOperation&, AsyncStatus)>;

    AsyncStatus Status() const {
        MutexLock lock(state_->mutex);
        return state_->status;
    }

    // A second handler is refused with E_ILLEGAL_METHOD_CALL, as the platform does.
    void Completed(CompletedHandler handler) const {
        MutexLock lock(state_->mutex);
        if (state_->handlerTaken) throw HResultError(E_ILLEGAL_METHOD_CALL);
        state_->handlerTaken = true;
        if (state_->status == AsyncStatus::Started) {
            state_->completed = std::move(handler);
            return;
        }
        const AsyncStatus status = state_->status;
        lock.unlock();
        handler(*this, status);
    }

    // The result; the operation's error if it failed, ERROR_CANCELLED if it
    // was cancelled, E_ILLEGAL_METHOD_CALL while it is still running.
    T GetResults() const {
        MutexLock lock(state_->mutex);
        switch (state_->status) {
            case AsyncStatus::Completed:
                return *state_->result;
            case AsyncStatus::Error:
                throw state_->error;
            case AsyncStatus::Canceled:
                throw HResultError(ERROR_CANCELLED);
            case AsyncStatus::Started:
                break;
        }
        throw HResultError(E_ILLEGAL_METHOD_CALL);
    }

    // Blocks until the operation has ended, leaving Completed to others.
    void wait() const {
        MutexLock lock(state_->mutex);
        while (state_->status == AsyncStatus::Started) state_->ended.wait(lock.forWaiting());
    }

    // Ends a running operation as cancelled; no effect once it has ended.
    void Cancel() const {
        finish(AsyncStatus::Canceled, std::nullopt, HResultError(S_OK));
    }

private:
    template <class>
    friend class AsyncCompletion;

    IAsyncOperation() : state_(std::make_shared<Details::AsyncState<T>>()) {}

    // Ends the operation with the result or error of that status.
    bool finish(AsyncStatus status, std::optional<T> result, HResultError error,
                const std::function<void(std::function<void()>)>* run = nullptr) const {
        CompletedHandler handler;
        {
            MutexLock lock(state_->mutex);
            if (state_->status != AsyncStatus::Started) return false;
            state_->result = std::move(result);
            state_->error = std::move(error);
            state_->status = status;
            handler = std::move(state_->completed);
        }
        state_->ended.notify_all();
        if (!handler) return true;
        if (run) {
            (*run)([self = *this, handler = std::move(handler), status] { handler(self, status); });
        } else {
            handler(*this, status);
        }
        return true;
    }

    std::shared_ptr<Details::AsyncState<T>> state_;
};

}  // namespace Quorvendale::Platform
