// PendingAnswers: this side's requests waiting for the peer's answers, by
// request id. A Completed handler of an answered request runs off the
// loop's turn (the loop's giveWork), so that a handler that blocks stalls no
// connection; a caller that waits with get() is woken at once.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "Platform/AppService/AppServiceResponse.h"
#include "Platform/Foundation/AsyncCompletion.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform::Details {

class PendingAnswers {
public:
    using Runner = std::function<void(std::function<void()>)>;
    explicit PendingAnswers(Runner runHandler) : runHandler_(std::move(runHandler)) {}

    // A new request id and its operation; nullopt once the table is closed.
    std::optional<std::uint64_t> add(AsyncCompletion<AppServiceResponse> completion) {
        MutexLock lock(mutex_);
        if (closed_) return std::nullopt;
        waiting_.emplace(++lastId_, std::move(completion));
        return lastId_;
    }

    // An answer for a request no longer waiting (one already failed by
    // close, or a peer's invention) is dropped.
    void answer(std::uint64_t requestId, AppServiceResponse response) {
        std::optional<AsyncCompletion<AppServiceResponse>> completion;
        {
            MutexLock lock(mutex_);
            const auto found = waiting_.find(requestId);
            if (found == waiting_.end()) return;
            completion = std::move(found->second);
            waiting_.erase(found);
        }
        completion->CompleteVia(std::move(response), runHandler_);
    }

    bool empty() const {
        MutexLock lock(mutex_);
        return waiting_.empty();
    }

    // Every request still waiting fails; none is added from now on.
    void close() {
        std::map<std::uint64_t, AsyncCompletion<AppServiceResponse>> waiting;
        {
            MutexLock lock(mutex_);
            closed_ = true;
            waiting.swap(waiting_);
        }
        for (auto& [id, completion] : waiting) completion.CompleteVia(failed(), runHandler_);
    }

    static AppServiceResponse failed() { return {AppServiceResponseStatus::Failure, ValueSet()}; }

private:
    const Runner runHandler_;
    mutable Mutex mutex_;
    std::map<std::uint64_t, AsyncCompletion<AppServiceResponse>> waiting_ QV_GUARDED_BY(mutex_);
    std::uint64_t lastId_ QV_GUARDED_BY(mutex_) = 0;
    bool closed_ QV_GUARDED_BY(mutex_) = false;
};

}  // namespace Quorvendale::Platform::Details
