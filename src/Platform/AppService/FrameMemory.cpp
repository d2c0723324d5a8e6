#include "Platform/AppService/FrameMemory.h"

#include <atomic>

#include "Platform/AppService/ChannelLoop.h"

namespace Quorvendale::Platform::Details {
namespace {

std::atomic<std::size_t> used{0};
// Set when a reservation was refused; the next release tells the loop.
std::atomic<bool> wanted{false};

}  // namespace

bool FrameMemory::tryReserve(std::size_t bytes) {
    std::size_t now = used.load(std::memory_order_relaxed);
    do {
        if (bytes > budget - std::min(now, budget)) {
            wanted.store(true);
            return false;
        }
    } while (!used.compare_exchange_weak(now, now + bytes));
    return true;
}

void FrameMemory::add(std::size_t bytes) { used.fetch_add(bytes); }

void FrameMemory::release(std::size_t bytes) {
    if (bytes == 0) return;
    used.fetch_sub(bytes);
    if (wanted.exchange(false)) ChannelLoop::instance().memoryReleased();
}

std::size_t FrameMemory::inUse() { return used.load(std::memory_order_relaxed); }

}  // namespace Quorvendale::Platform::Details
