// event<Handler>: a list of handlers registered with add, each under a 64-bit
// token, and removed by that token. Raising it calls the handlers registered
// at that moment, in registration order, on the raising thread; a handler may
// add or remove handlers (the change applies to the next raise). A handler
// that throws does not stop the others.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform {

struct event_token {
    std::int64_t value = 0;
    friend bool operator==(event_token, event_token) = default;
};

template <class... Args>
class event {
public:
    using Handler = std::function<void(Args...)>;

    event_token add(Handler handler) {
        MutexLock lock(mutex_);
        const event_token token{++lastToken_};
        handlers_.emplace_back(token, std::move(handler));
        return token;
    }

    void remove(event_token token) {
        MutexLock lock(mutex_);
        std::erase_if(handlers_, [token](const auto& entry) { return entry.first == token; });
    }

    // Forgets every handler, so that nothing they hold is kept alive.
    void clear() {
        decltype(handlers_) dropped;
        MutexLock lock(mutex_);
        dropped.swap(handlers_);
    }

    template <class... CallArgs>
    void operator()(CallArgs&&... args) const {
        decltype(handlers_) current;
        {
            MutexLock lock(mutex_);
            current = handlers_;
        }
        for (const auto& entry : current) {
            try {
                entry.second(args...);
            } catch (...) {
                // One faulty handler must not silence the rest.
            }
        }
    }

private:
    mutable Mutex mutex_;
    std::int64_t lastToken_ QV_GUARDED_BY(mutex_) = 0;
    std::vector<std::pair<event_token, Handler>> handlers_ QV_GUARDED_BY(mutex_);
};

}  // namespace Quorvendale::Platform
