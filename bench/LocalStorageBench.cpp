// A 100-byte write and read through IStorage on a local client, end to end
// (worker thread, app-service request to the host on a private bus, the
// store's file work), beside the ideal made of the same steps done with bare
// calls in the same run:
//
//   ideal = one thread create and join
//         + one 100-byte round trip over a socketpair to another process
//         + one 100-byte file overwrite (or read)
//
// Then eight threads at once, each writing and reading back a key of its
// own, on one client they share against a client each: the operations per
// second of both, so that sharing a client shows what it costs.
//
// And beside what users would pick instead: Redis over a Unix socket (when
// REDIS_SOCKET names a running redis-server's socket; bench/compare-local
// starts one) and SQLite in process (when the build found libsqlite3;
// LocalStorageSqlite.cpp). Prints each ratio at the end.
//
// The files live under TMPDIR (else /tmp), the raw ones and the service's
// alike. On ext4 an overwrite's close starts writeback of the truncated file,
// whose time varies several-fold from run to run; TMPDIR=/dev/shm leaves only
// the cost of the path between the processes to compare.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <thread>

#include "ServiceIdentity.h"
#include "LocalStorageBench.h"
#include "Quorvendale/Client.hpp"
#include "Support/PrivateBus.h"

#include "BareTransfer.h"
#include "MedianReporter.h"

namespace {

using namespace Quorvendale;
using Bench::payload;
using Bench::transfer;

constexpr const char* storagePackage = Quorvendale::ServiceIdentity::packageFamilyName.data();

const Client::Library* library = nullptr;
std::optional<Client::Storage> storage;
std::filesystem::path fileFolder;
int echoSocket = -1;

// The other process of the bare round trip, forked before any thread.
pid_t startEcho() {
    int ends[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
    const pid_t echo = ::fork();
    if (echo == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        char bytes[Bench::payloadBytes];
        while (transfer(ends[1], bytes, sizeof bytes, true) &&
               transfer(ends[1], bytes, sizeof bytes, false)) {
        }
        ::_exit(0);
    }
    ::close(ends[1]);
    echoSocket = ends[0];
    return echo;
}

void threadCreateAndJoin(benchmark::State& state) {
    for (auto _ : state) std::thread([] {}).join();
}

void roundTripToAnotherProcess(benchmark::State& state) {
    char bytes[Bench::payloadBytes] = {};
    for (auto _ : state) {
        transfer(echoSocket, bytes, sizeof bytes, false);
        transfer(echoSocket, bytes, sizeof bytes, true);
    }
}

void fileOverwrite(benchmark::State& state) {
    const std::string path = (fileFolder / "raw").string();
    for (auto _ : state) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        transfer(fd, const_cast<char*>(payload().data()), payload().size(), false);
        ::close(fd);
    }
}

void fileRead(benchmark::State& state) {
    const std::string path = (fileFolder / "raw").string();
    std::ofstream(path) << payload();
    char bytes[4096];
    for (auto _ : state) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(::read(fd, bytes, sizeof bytes));
        ::close(fd);
    }
}

void localWrite(benchmark::State& state) {
    for (auto _ : state) storage->write("bench", "value", payload());
}

void localRead(benchmark::State& state) {
    storage->write("bench", "value", payload());
    for (auto _ : state) benchmark::DoNotOptimize(storage->read("bench", "value"));
}

// Run on eight threads: a write and a read of the thread's own key per
// iteration, on the one client or on a client of the thread's own.
void localEightThreads(benchmark::State& state, bool shared) {
    std::optional<Client::Storage> own;
    if (!shared) own = library->local();
    const Client::Storage& client = shared ? *storage : *own;
    const std::string key = "thread" + std::to_string(state.thread_index());
    client.write("bench", key, payload());
    for (auto _ : state) {
        client.write("bench", key, payload());
        benchmark::DoNotOptimize(client.read("bench", key));
    }
    state.SetItemsProcessed(state.iterations() * 2);
}

// Redis's protocol, as much as SET and GET need.
class Redis {
public:
    explicit Redis(const char* socketPath) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath);
        descriptor_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(std::exchange(descriptor_, -1));
        }
    }
    ~Redis() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    explicit operator bool() const { return descriptor_ >= 0; }

    // One command and its whole reply.
    std::string call(std::initializer_list<std::string_view> words) {
        std::string command = "*" + std::to_string(words.size()) + "\r\n";
        for (std::string_view word : words) {
            command += "$" + std::to_string(word.size()) + "\r\n";
            command.append(word).append("\r\n");
        }
        transfer(descriptor_, command.data(), command.size(), false);
        std::string reply = readLine();
        if (reply.starts_with("$") && reply != "$-1") {
            std::string value(std::stoul(reply.substr(1)) + 2, '\0');
            transfer(descriptor_, value.data(), value.size(), true);
            value.resize(value.size() - 2);
            return value;
        }
        return reply;
    }

private:
    std::string readLine() {
        std::string line;
        char byte = 0;
        while (transfer(descriptor_, &byte, 1, true) && byte != '\n') line += byte;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
    }

    int descriptor_ = -1;
};

void redisCase(benchmark::State& state, bool writing) {
    const char* socketPath = std::getenv("REDIS_SOCKET");
    std::optional<Redis> redis;
    if (socketPath != nullptr) redis.emplace(socketPath);
    if (!redis || !*redis) {
        state.SkipWithError("no redis-server: set REDIS_SOCKET (bench/compare-local does)");
        return;
    }
    redis->call({"SET", "bench:value", payload()});
    for (auto _ : state) {
        if (writing) {
            benchmark::DoNotOptimize(redis->call({"SET", "bench:value", payload()}));
        } else {
            benchmark::DoNotOptimize(redis->call({"GET", "bench:value"}));
        }
    }
}

void printRatio(Bench::MedianReporter& reporter, const char* operation, const char* local,
                double ideal, const char* redis, const char* sqlite) {
    const double localTime = reporter.time(local);
    std::printf("\n%s: ideal %.1f us, local client %.1f us: %.2fx the ideal (target <= 1.25x)\n",
                operation, ideal / 1000, localTime / 1000, localTime / ideal);
    for (const char* other : {redis, sqlite}) {
        if (const double time = reporter.time(other); time > 0) {
            std::printf("  %s: %.1f us (the local client takes %.2fx its time)\n", other,
                        time / 1000, localTime / time);
        } else {
            std::printf("  %s: not measured\n", other);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Testing::TemporaryFolder data;
    Testing::ScopedEnvironment dataHome("XDG_DATA_HOME", data.path().c_str());
    fileFolder = data.path();
    Testing::TemporaryFolder services;
    std::ifstream built(QV_BUILD_SERVICE_FILE);
    std::ofstream(services.path() / (std::string(storagePackage) + ".service")) << built.rdbuf();
    Testing::PrivateBus bus(services.path());
    const pid_t echo = startEcho();  // before this process has a thread

    const Client::Library loaded(QV_STORAGE_LIBRARY);
    library = &loaded;
    storage = loaded.local();
    if (!storage) {
        std::fprintf(stderr, "no local client\n");
        return 1;
    }

    benchmark::RegisterBenchmark("thread create and join", threadCreateAndJoin)->UseRealTime();
    benchmark::RegisterBenchmark("100-byte round trip to another process",
                                 roundTripToAnotherProcess)
        ->UseRealTime();
    benchmark::RegisterBenchmark("100-byte file overwrite", fileOverwrite)->UseRealTime();
    benchmark::RegisterBenchmark("100-byte file read", fileRead)->UseRealTime();
    benchmark::RegisterBenchmark("local client write", localWrite)->UseRealTime();
    benchmark::RegisterBenchmark("local client read", localRead)->UseRealTime();
    for (const bool shared : {true, false}) {
        benchmark::RegisterBenchmark(shared ? "8 threads, one client" : "8 threads, a client each",
                                     localEightThreads, shared)
            ->Threads(8)
            ->UseRealTime();
    }
    benchmark::RegisterBenchmark("redis SET", redisCase, true)->UseRealTime();
    benchmark::RegisterBenchmark("redis GET", redisCase, false)->UseRealTime();
    Bench::registerSqlite(data.path());
    Bench::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const double common = reporter.time("thread create and join") +
                          reporter.time("100-byte round trip to another process");
    printRatio(reporter, "write", "local client write",
               common + reporter.time("100-byte file overwrite"), "redis SET", "sqlite replace");
    printRatio(reporter, "read", "local client read", common + reporter.time("100-byte file read"),
               "redis GET", "sqlite select");

    // Real time per iteration of all threads together: two operations.
    const double shared = reporter.time("8 threads, one client");
    const double unshared = reporter.time("8 threads, a client each");
    if (shared > 0 && unshared > 0) {
        std::printf(
            "\n8 threads: one shared client %.0f operations/s, a client each %.0f "
            "operations/s: sharing gives %.2fx\n",
            2e9 / shared, 2e9 / unshared, unshared / shared);
    }

    storage.reset();
    ::close(echoSocket);
    ::kill(echo, SIGKILL);
    ::waitpid(echo, nullptr, 0);
    benchmark::Shutdown();
}
