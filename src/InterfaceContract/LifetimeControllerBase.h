#pragma once

#include <atomic>
#include <cstdint>

namespace Quorvendale::InterfaceContract {

// Virtual base of every interfaced object: the lifetime count, and the one
// way the object is freed.
class LifetimeControllerBase {
public:
    LifetimeControllerBase(const LifetimeControllerBase&) = delete;
    LifetimeControllerBase& operator=(const LifetimeControllerBase&) = delete;
    virtual ~LifetimeControllerBase() = default;

    // Runs the most-derived destructor and frees the memory.
    virtual void destroy() noexcept { delete this; }

protected:
    LifetimeControllerBase() = default;

    std::atomic<std::uint32_t> lifetimeCount{0};
};

}  // namespace Quorvendale::InterfaceContract
