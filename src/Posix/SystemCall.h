// The one place where a system call that a signal interrupted before it did
// anything (EINTR) is repeated, for the store, networking, the platform
// runtime and the host alike.
#pragma once

#include <cerrno>

namespace Quorvendale::Posix {

// Calls `call` until it returns anything but -1 with errno EINTR, and gives
// that result; errno is left as the last call set it. A call with a time
// limit computes what is left of it inside `call`, so that a repeat does not
// wait longer than the first call would have.
template <class Call>
auto retryInterrupted(Call&& call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

}  // namespace Quorvendale::Posix
