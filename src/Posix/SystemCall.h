// The one place where the runtime repeats a system call that a signal
// interrupted before it did anything (EINTR).
#pragma once

#include <cerrno>

namespace Quorvendale::Platform::Details {

// Calls `call` until it returns anything but -1 with errno EINTR, and gives
// that result; errno is left as the last call set it.
template <class Call>
auto retryInterrupted(Call&& call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

}  // namespace Quorvendale::Platform::Details
