// HoldCount: when something is done with once every holder has let go. It
// starts with one hold, its owner's own; each further holder takes one and
// drops it, and the drop of the last one, whichever thread makes it, is the
// one that finishes the thing, exactly once. A hold taken after that is a
// fault of the caller.
#pragma once

#include <atomic>

namespace Quorvendale::Platform {

class HoldCount {
public:
    void take() noexcept { holds_.fetch_add(1, std::memory_order_relaxed); }

    // Drops one hold: true for the caller that dropped the last, which then
    // sees everything the other holders did before they let go.
    [[nodiscard]] bool drop() noexcept {
        return holds_.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }

private:
    std::atomic<unsigned> holds_{1};
};

}  // namespace Quorvendale::Platform
