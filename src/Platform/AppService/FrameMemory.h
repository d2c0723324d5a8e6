// FrameMemory: what a process holds for frames on their way, across all its
// app-service connections: the bytes of frames partly received, and those of
// frames queued for peers that have not read them yet. Past the budget, a
// connection that needs more to receive a frame waits its turn (the loop
// reads no more from it) until others have let go, so no mix of peers can
// take the process beyond it.
#pragma once

#include <cstddef>

namespace Quorvendale::Platform::Details {

class FrameMemory {
public:
    // Two frames of the largest size: one may be arriving while the answer
    // to another leaves. Past it, memory goes to whoever finishes first.
    static constexpr std::size_t budget = 128u << 20;

    // For receiving: false, and the loop told when memory comes free, if the
    // budget has no room.
    static bool tryReserve(std::size_t bytes);
    // For sending: an answer is never refused; it counts, so that receiving
    // waits while answers pile up.
    static void add(std::size_t bytes);
    static void release(std::size_t bytes);
    static std::size_t inUse();
};

}  // namespace Quorvendale::Platform::Details
