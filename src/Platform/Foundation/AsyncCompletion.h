// AsyncCompletion<T>: the producer side of an IAsyncOperation<T>, for the
// runtime itself. It creates the operation and ends it with Complete, Fail
// or, through the consumer's Cancel, a cancellation. Only the first ending
// counts.
#pragma once

#include <functional>

#include "Platform/Foundation/IAsyncOperation.h"
#include "Platform/Foundation/ThreadPool.h"

namespace Quorvendale::Platform {

template <class T>
class AsyncCompletion {
public:
    AsyncCompletion() = default;

    const IAsyncOperation<T>& operation() const noexcept { return operation_; }

    // Each returns false when the operation had already ended (a cancellation
    // came first, say) and the value was dropped.
    bool Complete(T result) const {
        return operation_.finish(AsyncStatus::Completed, std::move(result), HResultError(S_OK));
    }
    // As Complete, but a Completed handler is given to `run` rather than
    // run on this thread: for a thread that must never wait on a handler.
    bool CompleteVia(T result, const std::function<void(std::function<void()>)>& run) const {
        return operation_.finish(AsyncStatus::Completed, std::move(result), HResultError(S_OK),
                                 &run);
    }
    bool Fail(HResultError error) const {
        return operation_.finish(AsyncStatus::Error, std::nullopt, std::move(error));
    }

private:
    IAsyncOperation<T> operation_;
};

// Runs work on the thread pool; its result or HResultError ends the operation.
// Any other exception ends it with E_FAIL.
template <class T>
IAsyncOperation<T> runAsync(std::function<T()> work) {
    AsyncCompletion<T> completion;
    ThreadPool::submit([completion, work = std::move(work)] {
        try {
            completion.Complete(work());
        } catch (const HResultError& error) {
            completion.Fail(error);
        } catch (...) {
            completion.Fail(HResultError(E_FAIL));
        }
    });
    return completion.operation();
}

}  // namespace Quorvendale::Platform
