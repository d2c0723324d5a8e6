// What one misbehaving client costs the others, measured against a real host
// on a private bus: another client's read latency (p50, p99 of small reads)
// with the host otherwise idle, beside a client that never reads its answers,
// and during a burst of large answers; and the host's resident memory and
// threads before, at the peak and a few seconds after each.
//
// Usage: AppServiceFairnessBench [reads per phase, default 500]
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/Text/TextConversion.h"
#include "ServiceIdentity.h"
#include "Support/PrivateBus.h"
#include "Support/RawAppServiceClient.h"
#include "Support/StorageMessages.h"
#include "Support/Waiting.h"

#include "BenchmarkRatio.h"

namespace {

using namespace Quorvendale;
using namespace Quorvendale::Platform;
using Clock = std::chrono::steady_clock;

constexpr const char* package = ServiceIdentity::packageFamilyName.data();
constexpr const char* appService = ServiceIdentity::appServiceName.data();

// VmRSS in KiB and the thread count of a process.
std::pair<long, long> footprint(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    long rss = 0, threads = 0;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) rss = std::stol(line.substr(6));
        if (line.rfind("Threads:", 0) == 0) threads = std::stol(line.substr(8));
    }
    return {rss, threads};
}

ValueSet readOf(const std::string& key) {
    return Testing::request({{u"command", "read"}, {u"group", "bench"}, {u"key", key}});
}

// Milliseconds of `count` small reads, sorted.
std::vector<double> latencies(const AppServiceConnection& connection, int count) {
    std::vector<double> all;
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        const auto reply = Testing::await(connection.SendMessageAsync(readOf("small")));
        if (Testing::replyOf(reply).first != "success") throw std::runtime_error("a read failed");
        all.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::sort(all.begin(), all.end());
    return all;
}

double at(const std::vector<double>& sorted, double quantile) {
    return sorted[static_cast<std::size_t>(quantile * (sorted.size() - 1))];
}

// Samples the host's peak footprint while it lives.
class PeakWatch {
public:
    explicit PeakWatch(pid_t host) : thread_([this, host] {
        while (!stop_) {
            const auto [rss, threads] = footprint(host);
            peakRss_ = std::max(peakRss_.load(), rss);
            peakThreads_ = std::max(peakThreads_.load(), threads);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }) {}
    ~PeakWatch() { stop(); }
    void stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    long rss() const { return peakRss_; }
    long threads() const { return peakThreads_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<long> peakRss_{0}, peakThreads_{0};
    std::thread thread_;
};

void report(const char* phase, const std::vector<double>& sorted, const std::vector<double>& idle,
            std::pair<long, long> before, const PeakWatch& peak, std::pair<long, long> after) {
    std::printf("%-34s p50 %7.3f ms  p99 %7.3f ms  (x%.2f, x%.2f of idle)  host RSS %ld/%ld/%ld KiB"
                "  threads %ld/%ld/%ld (before/peak/after)\n",
                phase, at(sorted, 0.5), at(sorted, 0.99), at(sorted, 0.5) / at(idle, 0.5),
                at(sorted, 0.99) / at(idle, 0.99), before.first, peak.rss(), after.first,
                before.second, peak.threads(), after.second);
}

}  // namespace

int main(int argc, char** argv) {
    const int reads = argc > 1 ? std::max(10, std::atoi(argv[1])) : 500;
    // How long the host is given to settle after a phase; brief for the test command.
    const auto settle = Bench::brief() ? std::chrono::milliseconds(500) : std::chrono::seconds(3);
    Testing::PackageFolder data;
    Testing::TemporaryFolder services;
    {
        std::string file = Testing::contentOf(QV_BUILD_SERVICE_FILE);
        std::filesystem::create_directories(services.path());
        std::ofstream(services.path() / (std::string(package) + ".service")) << file;
    }
    Testing::PrivateBus bus(services.path());
    AppServiceConnection normal;
    normal.PackageFamilyName(hstring(utf8ToUtf16(package)));
    normal.AppServiceName(hstring(utf8ToUtf16(appService)));
    if (Testing::await(normal.OpenAsync()) != AppServiceConnectionStatus::Success) return 1;
    const pid_t host = bus.ownerOf(package).value();
    const auto write = [&](const std::string& key, std::size_t size) {
        Testing::await(normal.SendMessageAsync(Testing::request(
            {{u"command", "write"}, {u"group", "bench"}, {u"key", key}, {u"data", std::string(size, 'x')}})));
    };
    write("small", 100);
    write("large", 256 << 10);
    write("huge", 2 << 20);
    latencies(normal, 50);  // warm up

    const auto idleBefore = footprint(host);
    PeakWatch idlePeak(host);
    const auto idle = latencies(normal, reads);
    idlePeak.stop();
    report("idle host", idle, idle, idleBefore, idlePeak, footprint(host));

    {
        const auto before = footprint(host);
        PeakWatch peak(host);
        Testing::RawAppServiceClient attacker(bus.address(), package, appService);
        for (std::uint64_t id = 1; id <= 100; ++id) attacker.sendRequest(id, readOf("large"));
        const auto sorted = latencies(normal, reads);
        const bool cut = attacker.hungUpWithin(std::chrono::seconds(0)) ||
                         Testing::eventually([&] { return bus.log().find("stopped reading") !=
                                                          std::string::npos; });
        std::this_thread::sleep_for(settle);
        peak.stop();
        report("beside a slow reader (100 x 256K)", sorted, idle, before, peak, footprint(host));
        std::printf("  slow reader cut off: %s\n", cut ? "yes" : "no");
        // Against an idle p99 of at least a millisecond: below that, the p99 of
        // a few hundred reads is one preemption by another process.
        Bench::reportRatio("AppServiceFairnessBench", "p99-beside-a-slow-reader",
                           at(sorted, 0.99) / std::max(at(idle, 0.99), 1.0), 3);
    }
    {
        const auto before = footprint(host);
        PeakWatch peak(host);
        std::vector<std::thread> burst;
        for (int c = 0; c < 4; ++c) {
            burst.emplace_back([&] {
                Testing::RawAppServiceClient client(bus.address(), package, appService);
                for (std::uint64_t id = 1; id <= 8; ++id) client.sendRequest(id, readOf("huge"));
                for (int i = 0; i < 8 && client.receive(std::chrono::seconds(10)); ++i) {
                }
            });
        }
        const auto sorted = latencies(normal, reads);
        for (auto& thread : burst) thread.join();
        std::this_thread::sleep_for(settle);
        peak.stop();
        report("during a burst (4 x 8 x 2M reads)", sorted, idle, before, peak, footprint(host));
    }
    return 0;
}
