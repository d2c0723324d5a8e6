// raiseDescriptorLimit: for a process that holds a descriptor per
// connection, its soft RLIMIT_NOFILE raised to the hard limit.
#pragma once

#include <sys/resource.h>

namespace Quorvendale::Posix {

// The soft limit after; 0 if it cannot be read.
inline rlim_t raiseDescriptorLimit() noexcept {
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return 0;
    if (descriptors.rlim_cur < descriptors.rlim_max) {
        descriptors.rlim_cur = descriptors.rlim_max;
        if (::setrlimit(RLIMIT_NOFILE, &descriptors) != 0) ::getrlimit(RLIMIT_NOFILE, &descriptors);
    }
    return descriptors.rlim_cur;
}

}  // namespace Quorvendale::Posix
