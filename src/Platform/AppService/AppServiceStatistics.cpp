#include "Platform/AppService/AppServiceStatistics.h"

#include <atomic>

#include "Platform/AppService/MemoryBudget.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform {
namespace {

std::atomic<std::uint64_t> bytesReceived{0};
std::atomic<std::uint64_t> bytesSent{0};
std::atomic<std::uint64_t> peersCutOff{0};
std::atomic<std::uint64_t> memoryHeldNow{0};

struct Requests {
    Mutex mutex;
    std::map<std::string, std::uint64_t, std::less<>> byCommand QV_GUARDED_BY(mutex);
    std::uint64_t failed QV_GUARDED_BY(mutex) = 0;
};

// Never destroyed: pool threads may still count while the process exits.
Requests& requests() {
    static Requests* const requests = new Requests;
    return *requests;
}

}  // namespace

void AppServiceStatistics::received(std::size_t bytes) {
    bytesReceived.fetch_add(bytes, std::memory_order_relaxed);
}

void AppServiceStatistics::sent(std::size_t bytes) {
    bytesSent.fetch_add(bytes, std::memory_order_relaxed);
}

void AppServiceStatistics::peerCutOff() { peersCutOff.fetch_add(1, std::memory_order_relaxed); }

void AppServiceStatistics::memoryHeld(std::size_t bytes) {
    memoryHeldNow.store(bytes, std::memory_order_relaxed);
}

void AppServiceStatistics::request(std::string_view command, bool failed) {
    Requests& all = requests();
    MutexLock lock(all.mutex);
    const auto found = all.byCommand.find(command);
    if (found != all.byCommand.end()) {
        ++found->second;
    } else {
        all.byCommand.emplace(command, 1);
    }
    if (failed) ++all.failed;
}

AppServiceStatistics::Snapshot AppServiceStatistics::snapshot() {
    Snapshot snapshot;
    snapshot.bytesReceived = bytesReceived.load(std::memory_order_relaxed);
    snapshot.bytesSent = bytesSent.load(std::memory_order_relaxed);
    snapshot.peersCutOff = peersCutOff.load(std::memory_order_relaxed);
    snapshot.frameMemoryInUse = memoryHeldNow.load(std::memory_order_relaxed);
    snapshot.frameMemoryCeiling = Details::MemoryBudget().ceiling();
    Requests& all = requests();
    MutexLock lock(all.mutex);
    snapshot.requests.insert(all.byCommand.begin(), all.byCommand.end());
    snapshot.requestsFailed = all.failed;
    return snapshot;
}

}  // namespace Quorvendale::Platform
