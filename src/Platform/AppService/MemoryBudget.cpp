#include "Platform/AppService/MemoryBudget.h"

#include <algorithm>
#include <utility>

#include "Platform/AppService/AppServiceStatistics.h"

namespace Quorvendale::Platform::Details {

std::size_t MemoryBudget::floorPart(std::size_t held) const {
    return std::min(held, limits_.clientFloor);
}

std::size_t MemoryBudget::poolPart(std::size_t held) const {
    return held - floorPart(held);
}

void MemoryBudget::change(ClientId client, std::size_t before, std::size_t after) {
    floorUsed_ = floorUsed_ - floorPart(before) + floorPart(after);
    poolUsed_ = poolUsed_ - poolPart(before) + poolPart(after);
    if (after == 0) {
        held_.erase(client);
    } else {
        held_[client] = after;
    }
    AppServiceStatistics::memoryHeld(floorUsed_ + poolUsed_);
}

bool MemoryBudget::tryTake(ClientId client, std::size_t bytes) {
    MutexLock lock(mutex_);
    const auto found = held_.find(client);
    const std::size_t before = found == held_.end() ? 0 : found->second;
    const std::size_t after = before + bytes;
    const bool fits = after <= limits_.clientShare &&
                      poolUsed_ - poolPart(before) + poolPart(after) <= limits_.pool &&
                      floorUsed_ - floorPart(before) + floorPart(after) <= limits_.floorPool;
    if (!fits) {
        refused_ = true;
        return false;
    }
    change(client, before, after);
    return true;
}

void MemoryBudget::add(ClientId client, std::size_t bytes) {
    if (bytes == 0) return;
    MutexLock lock(mutex_);
    const std::size_t before = held_.count(client) ? held_[client] : 0;
    change(client, before, before + bytes);
}

bool MemoryBudget::giveBack(ClientId client, std::size_t bytes) {
    if (bytes == 0) return false;
    MutexLock lock(mutex_);
    const auto found = held_.find(client);
    const std::size_t before = found == held_.end() ? 0 : found->second;
    change(client, before, before - std::min(before, bytes));
    return std::exchange(refused_, false);
}

bool MemoryBudget::mayStart(ClientId client) const {
    MutexLock lock(mutex_);
    const auto found = held_.find(client);
    const std::size_t held = found == held_.end() ? 0 : found->second;
    if (held >= limits_.clientShare) return false;
    return held < limits_.clientFloor || poolUsed_ < limits_.pool;
}

std::size_t MemoryBudget::held() const {
    MutexLock lock(mutex_);
    return poolUsed_ + floorUsed_;
}

std::size_t MemoryBudget::heldFor(ClientId client) const {
    MutexLock lock(mutex_);
    const auto found = held_.find(client);
    return found == held_.end() ? 0 : found->second;
}

}  // namespace Quorvendale::Platform::Details
