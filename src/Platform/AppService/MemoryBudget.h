// MemoryBudget: what a process holds for the peers of its app-service
// connections, counted per client (a peer process, not a connection): the
// bytes of frames partly received, of requests received and still being
// served, and of answers queued for the peer. A client past its share waits
// (the loop reads no more from it and starts none of its requests) while
// the others go on, so no client's state stops the host receiving another's
// frames, and the total stays under pool + floorPool whatever the number and
// mix of clients (answers of requests already running may add what they are
// while the loop waits: they are bounded by the requests that run at once).
//
// Thread-safe; it calls nobody. Whoever gives bytes back learns whether a
// client was refused meanwhile, and wakes the loop itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform::Details {

using ClientId = std::uint64_t;

struct MemoryLimits {
    // One frame of the largest size (64 MiB) and the answers and small
    // frames beside it: a client can always move its largest value.
    std::size_t clientShare = std::size_t{96} << 20;
    // What all clients together hold beyond their floors: four clients
    // moving their largest values at once, a dozen writing 30 MB ones.
    std::size_t pool = std::size_t{384} << 20;
    // A client holding less than this is never refused for the pool's
    // sake: a small request gets in however full the pool is.
    std::size_t clientFloor = std::size_t{256} << 10;
    // What the floors of all clients together may hold: 256 clients at
    // their floor, far more than ever send small frames at one instant.
    std::size_t floorPool = std::size_t{64} << 20;
};

class MemoryBudget {
public:
    using Limits = MemoryLimits;


    explicit MemoryBudget(Limits limits = {}) : limits_(limits) {}

    // For receiving: takes the bytes for the client if they fit its share
    // and the pool; false, and the refusal remembered, if not.
    bool tryTake(ClientId client, std::size_t bytes);
    // For answers, which exist already: never refused, but counted, so that
    // the client's frames and requests wait while its answers pile up.
    void add(ClientId client, std::size_t bytes);
    // True when a refusal happened since the last true: the loop should
    // look again at whoever waits.
    bool giveBack(ClientId client, std::size_t bytes);
    // Whether a request of the client may start: it is under its share, and
    // the pool has room or the client is under its floor.
    bool mayStart(ClientId client) const;

    std::size_t held() const;
    std::size_t heldFor(ClientId client) const;
    std::size_t ceiling() const { return limits_.pool + limits_.floorPool; }
    std::size_t clientShare() const { return limits_.clientShare; }

private:
    void change(ClientId client, std::size_t before, std::size_t after) QV_REQUIRES(mutex_);
    std::size_t floorPart(std::size_t held) const;
    std::size_t poolPart(std::size_t held) const;

    const Limits limits_;
    mutable Mutex mutex_;
    std::unordered_map<ClientId, std::size_t> held_ QV_GUARDED_BY(mutex_);
    std::size_t poolUsed_ QV_GUARDED_BY(mutex_) = 0;
    std::size_t floorUsed_ QV_GUARDED_BY(mutex_) = 0;
    bool refused_ QV_GUARDED_BY(mutex_) = false;
};

}  // namespace Quorvendale::Platform::Details
