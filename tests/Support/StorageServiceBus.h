// The storage service as the tests that start real hosts reach it: the build
// tree's service file in a services folder, a private bus that starts hosts
// from it, and a fresh data home those hosts inherit. A base of test
// fixtures; the target defines QV_BUILD_SERVICE_FILE.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "ServiceIdentity.h"
#include "Support/PrivateBus.h"

namespace Quorvendale::Testing {

inline constexpr const char* storagePackage = ServiceIdentity::packageFamilyName.data();

class StorageServiceBus {
protected:
    std::filesystem::path serviceFile() const {
        return services_.path() / (std::string(storagePackage) + ".service");
    }
    // Host options given here follow the file's own, which they override.
    void install(const std::string& hostArguments = {}) const {
        std::string file = contentOf(QV_BUILD_SERVICE_FILE);
        file.insert(file.find_last_not_of('\n') + 1, hostArguments);
        std::ofstream(serviceFile()) << file;
    }
    void startBus(const std::string& hostArguments = {}) {
        install(hostArguments);
        bus_.emplace(services_.path());
    }
    std::filesystem::path localState() const { return package_.localState(storagePackage); }
    // The test ends here when no host owns the name: the signals meant for
    // the host must never go to pid -1, every process this one may signal.
    pid_t host() const {
        const auto owner = bus_->ownerOf(storagePackage);
        if (!owner) throw std::runtime_error("no host owns the storage service's name");
        return *owner;
    }
    // What the host holds now, from its /proc entry.
    struct Use {
        long residentKiB = 0, threads = 0, busyThreads = 0, descriptors = 0;
    };
    Use hostUse() const {
        const std::string entry = "/proc/" + std::to_string(host());
        Use use;
        std::ifstream status(entry + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmRSS:")) use.residentKiB = std::stol(line.substr(6));
            if (line.starts_with("Threads:")) use.threads = std::stol(line.substr(8));
        }
        use.descriptors = std::distance(std::filesystem::directory_iterator(entry + "/fd"), {});
        for (const auto& task : std::filesystem::directory_iterator(entry + "/task")) {
            std::string stat;
            std::getline(std::ifstream(task.path() / "stat"), stat);
            const auto state = stat.rfind(") ");  // the name may hold anything
            use.busyThreads += state != std::string::npos && stat.find_first_of("RD", state + 2) == state + 2;
        }
        return use;
    }

    // Soon (a bounded wait, not a time limit), the host holds no more than
    // at `start`: a few MiB (not measured in a `slowBuild`, which keeps freed
    // memory), no thread at work (the trim may be), the idle threads of its
    // pool (at most 8 a core, at least 16, the loop's, and one a sanitizer
    // may run), two descriptors.
    void expectBackToIdle(const Use& start, bool slowBuild) const {
        const auto idle = [&](const Use& now) {
            return (slowBuild || now.residentKiB < start.residentKiB + 8 * 1024) &&
                   now.busyThreads <= start.busyThreads + 1 &&
                   now.threads <= 3 + std::max(16u, 8 * std::thread::hardware_concurrency()) &&
                   now.descriptors <= start.descriptors + 2;
        };
        const auto began = std::chrono::steady_clock::now();
        while (!idle(hostUse()) && std::chrono::steady_clock::now() - began < std::chrono::seconds(20)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        const Use now = hostUse();
        EXPECT_TRUE(idle(now)) << now.residentKiB << " KiB, " << now.busyThreads << " busy of "
                               << now.threads << " threads, " << now.descriptors << " descriptors";
    }

    PackageFolder package_;
    TemporaryFolder services_;
    std::optional<PrivateBus> bus_;  // last, so that it ends before the folders go
};

}  // namespace Quorvendale::Testing
