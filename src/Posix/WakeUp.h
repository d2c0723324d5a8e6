// WakeUp: an eventfd that one thread signals and a loop waiting in poll or
// epoll on descriptor() sees as readable, until it drains it. Signals that
// arrive before the drain are one wake-up: the loop looks at everything once.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "Posix/FileDescriptor.h"

namespace Quorvendale::Posix {

class WakeUp {
public:
    // Throws std::system_error when the system gives no eventfd (the
    // descriptor limit reached, say).
    WakeUp() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!event_.valid()) throw std::system_error(errno, std::generic_category(), "eventfd");
    }

    int descriptor() const noexcept { return event_.get(); }

    // Safe from any thread, a signal handler included. It cannot fail short
    // of 2^64 - 2 signals without a drain.
    void signal() noexcept {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(event_.get(), &one, sizeof one);
    }

    // Takes every signal so far: the descriptor is not readable until the next.
    void drain() noexcept {
        std::uint64_t signals = 0;
        [[maybe_unused]] const auto got = ::read(event_.get(), &signals, sizeof signals);
    }

private:
    const FileDescriptor event_;
};

}  // namespace Quorvendale::Posix
