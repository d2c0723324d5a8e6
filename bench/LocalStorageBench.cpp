// A local client's write and read through IStorage, end to end (worker
// thread, app-service request to the host on a private bus, the store's file
// work), beside the ideal made of the same steps done with bare calls in the
// same run. For a 100-byte value:
//
//   ideal = one thread create and join
//         + one 100-byte round trip over a socketpair to another process
//         + one 100-byte file overwrite (or read)
//
// For the 64 KiB and 1 MiB values, where the bytes' own cost is all that
// counts:
//
//   ideal = the file overwrite (or read) of the value
//         + the value as UTF-16 (twice its bytes) sent to another process
//           over a socketpair and back
//
// Then eight threads at once, each writing and reading back a key of its
// own, on one client they share against a client each: the operations per
// second of both, so that sharing a client shows what it costs.
//
// Then what a host kill costs 256 clients in this process: the time until
// every one has answered again, against the time one client takes (one
// activation of the host). What the ordering of requests on one entry costs:
// the p99 of 100-byte reads of an entry that another process overwrites
// without pause, against reads of another entry meanwhile. And the client's
// peak memory for a 30 MB value written and read, in a process of its own
// (VmHWM less VmRSS before, /proc/self/status), as a multiple of the value.
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

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <thread>
#include <vector>

#include "ServiceIdentity.h"
#include "LocalStorageBench.h"
#include "Quorvendale/Client.hpp"
#include "Support/PrivateBus.h"

#include "BareTransfer.h"
#include "BenchmarkRatio.h"
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

// The sizes of the large values, and the largest message of a bare round
// trip: a length, then the largest value as UTF-16.
constexpr std::size_t largeSizes[] = {64 << 10, 1 << 20};
constexpr std::size_t largestMessage = 8 + 2 * (std::size_t{1} << 20);

// n bytes of text.
const std::string& valueOf(std::size_t bytes) {
    static std::map<std::size_t, std::string> values;
    auto [value, added] = values.try_emplace(bytes);
    if (added) value->second.assign(bytes, 'v');
    return value->second;
}

std::string sizeName(std::size_t bytes) {
    if (bytes >= (1 << 20)) return std::to_string(bytes >> 20) + " MiB";
    if (bytes >= (1 << 10)) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " B";
}

// The other process of the bare round trips, forked before any thread:
// answers each message (a 64-bit length, then that many bytes) with the whole
// message once it has all of it, as a service answers a whole request.
pid_t startEcho() {
    int ends[2];
    ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
    const pid_t echo = ::fork();
    if (echo == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::vector<char> message(largestMessage);
        for (;;) {
            std::size_t have = 0, size = largestMessage;
            while (have < size) {
                const ssize_t count = ::read(ends[1], message.data() + have, size - have);
                if (count <= 0) ::_exit(0);
                have += static_cast<std::size_t>(count);
                if (size == largestMessage && have >= 8) {
                    std::uint64_t length = 0;
                    std::memcpy(&length, message.data(), 8);
                    if (length > largestMessage - 8) ::_exit(1);
                    size = 8 + length;
                }
            }
            if (!transfer(ends[1], message.data(), size, false)) ::_exit(0);
        }
    }
    ::close(ends[1]);
    echoSocket = ends[0];
    return echo;
}

void threadCreateAndJoin(benchmark::State& state) {
    for (auto _ : state) std::thread([] {}).join();
}

void roundTripToAnotherProcess(benchmark::State& state, std::size_t bytes) {
    std::vector<char> message(8 + bytes, 'v');
    const std::uint64_t length = bytes;
    std::memcpy(message.data(), &length, 8);
    for (auto _ : state) {
        transfer(echoSocket, message.data(), message.size(), false);
        transfer(echoSocket, message.data(), message.size(), true);
    }
}

void fileOverwrite(benchmark::State& state, std::size_t bytes) {
    const std::string path = (fileFolder / ("raw" + std::to_string(bytes))).string();
    const std::string& value = valueOf(bytes);
    for (auto _ : state) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        transfer(fd, const_cast<char*>(value.data()), value.size(), false);
        ::close(fd);
    }
}

// Into a buffer made once: the floor, with none of the allocation the store
// needs for each value.
void fileRead(benchmark::State& state, std::size_t bytes) {
    const std::string path = (fileFolder / ("raw" + std::to_string(bytes))).string();
    std::ofstream(path) << valueOf(bytes);
    std::vector<char> buffer(bytes + 4096);
    for (auto _ : state) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        benchmark::DoNotOptimize(::read(fd, buffer.data(), buffer.size()));
        ::close(fd);
    }
}

std::string keyOf(std::size_t bytes) { return "value" + std::to_string(bytes); }

void localWrite(benchmark::State& state, std::size_t bytes) {
    const std::string key = keyOf(bytes);
    for (auto _ : state) storage->write("bench", key, valueOf(bytes));
}

void localRead(benchmark::State& state, std::size_t bytes) {
    const std::string key = keyOf(bytes);
    storage->write("bench", key, valueOf(bytes));
    for (auto _ : state) {
        if (storage->read("bench", key).size() != bytes) {
            state.SkipWithError("the value read back is not the one written");
            break;
        }
    }
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

// The names of a size's cases.
struct Names {
    explicit Names(std::size_t bytes)
        : size(sizeName(bytes)),
          overwrite(size + " file overwrite"),
          read(size + " file read"),
          roundTrip(sizeName(bytes <= Bench::payloadBytes ? bytes : 2 * bytes) +
                    " round trip to another process"),
          localWrite("local client " + size + " write"),
          localRead("local client " + size + " read") {}
    std::string size, overwrite, read, roundTrip, localWrite, localRead;
};

std::chrono::duration<double, std::milli> since(std::chrono::steady_clock::time_point start) {
    return std::chrono::steady_clock::now() - start;
}

pid_t hostOf(const Testing::PrivateBus& bus) { return bus.ownerOf(storagePackage).value_or(0); }

void killHost(const Testing::PrivateBus& bus) {
    if (const pid_t host = hostOf(bus); host > 0) {
        ::kill(host, SIGKILL);
        Testing::PrivateBus::exitStatusOf(host);
    }
}

// The time from a host kill until each of the clients has written once more,
// all at once on a thread each; the clients were all connected before.
double recoveryMilliseconds(const Testing::PrivateBus& bus, std::vector<Client::Storage>& clients) {
    for (Client::Storage& client : clients) client.write("recovery", "k", payload());
    killHost(bus);
    const auto start = std::chrono::steady_clock::now();
    std::atomic<int> failed{0};
    {
        std::vector<std::jthread> threads;
        for (Client::Storage& client : clients) {
            threads.emplace_back([&] {
                try {
                    client.write("recovery", "k", payload());
                } catch (const std::exception&) {
                    ++failed;
                }
            });
        }
    }
    const double elapsed = since(start).count();
    if (failed > 0) std::printf("%d of %zu clients failed after the kill\n", failed.load(), clients.size());
    return elapsed;
}

void printRecovery(const Testing::PrivateBus& bus) {
    std::vector<Client::Storage> one{library->local()}, many;
    for (int c = 0; c < 256; ++c) many.push_back(library->local());
    const int rounds = Bench::brief() ? 1 : 3;
    double single = 0, all = 0;
    for (int round = 0; round < rounds; ++round) {
        single += recoveryMilliseconds(bus, one) / rounds;
        all += recoveryMilliseconds(bus, many) / rounds;
    }
    std::printf("\nhost killed: one client answers again after %.1f ms, all of 256 after %.1f ms: "
                "%.2fx (target <= 4)\n", single, all, all / single);
    Bench::reportRatio("LocalStorageBench", "256-clients-after-a-host-kill", all / single, 4);
}

// As another application: overwrites one entry with 100-byte values until
// killed (a minute at most).
int overwriteUntilKilled() {
    const Client::Library loaded(QV_STORAGE_LIBRARY);
    const Client::Storage client = loaded.local();
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (int i = 0; i < 10'000'000 && std::chrono::steady_clock::now() < end; ++i) {
        client.write("contended", "entry", std::string(Bench::payloadBytes, 'a' + i % 26));
    }
    return 0;
}

double p99ReadMilliseconds(const std::string& key) {
    std::vector<double> times;
    for (int i = 0; i < (Bench::brief() ? 500 : 2000); ++i) {
        const auto start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(storage->read("contended", key));
        times.push_back(since(start).count());
    }
    std::ranges::sort(times);
    return times[times.size() * 99 / 100];
}

void printContendedReads() {
    storage->write("contended", "entry", payload());
    storage->write("contended", "other", payload());
    const Testing::ChildProcess writer(
        {std::filesystem::read_symlink("/proc/self/exe"), "--overwrite-until-killed"});
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const double other = p99ReadMilliseconds("other");
    const double same = p99ReadMilliseconds("entry");
    std::printf("\nreads while another process overwrites: p99 %.3f ms of that entry, %.3f ms of "
                "another: %.2fx (target <= 2)\n", same, other, same / other);
    Bench::reportRatio("LocalStorageBench", "p99-read-of-an-entry-being-overwritten", same / other,
                       2);
}

long statusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field)) return std::stol(line.substr(std::strlen(field)));
    }
    return 0;
}

// In a process of its own, so that nothing else sets its high-water mark:
// the growth of the peak resident size over a 30 MB write, then a read.
int printPeakMemory() {
    const Client::Library loaded(QV_STORAGE_LIBRARY);
    const Client::Storage client = loaded.local();
    client.write("memory", "k", "warm");
    const std::size_t bytes = 30'000'000;
    const std::string value(bytes, 'v');
    const auto growthOf = [&](auto operation) {
        std::ofstream("/proc/self/clear_refs") << "5";  // VmHWM starts again from VmRSS
        const long before = statusKiB("VmRSS:");
        operation();
        return (statusKiB("VmHWM:") - before) * 1024.0 / bytes;
    };
    const double written = growthOf([&] { client.write("memory", "k", value); });
    std::string read;
    const double readBack = growthOf([&] { read = client.read("memory", "k"); });
    if (read != value) return 1;
    std::printf("\n30 MB value: the client's peak memory grows by %.2fx the value to write it, "
                "%.2fx to read it (target <= 3)\n", written, readBack);
    Bench::reportRatio("LocalStorageBench", "peak-memory-writing-30-MB", written, 3);
    Bench::reportRatio("LocalStorageBench", "peak-memory-reading-30-MB", readBack, 3);
    return 0;
}

// One operation's figures against its ideal, and the line the test command
// checks; a 0 for a side that did not run.
void printRatio(Bench::MedianReporter& reporter, const std::string& operation,
                const std::string& local, double ideal, double target) {
    const double localTime = reporter.time(local);
    const double ratio = ideal > 0 ? localTime / ideal : 0;
    std::printf("\n%s: ideal %.1f us, local client %.1f us: %.2fx the ideal (target <= %.2fx)\n",
                operation.c_str(), ideal / 1000, localTime / 1000, ratio, target);
    std::string what = operation;
    for (char& c : what) c = c == ' ' ? '-' : c;
    Bench::reportRatio("LocalStorageBench", what, ratio, target);
}

void printOthers(Bench::MedianReporter& reporter, const std::string& local, const char* redis,
                 const char* sqlite) {
    const double localTime = reporter.time(local);
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
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "--overwrite-until-killed") return overwriteUntilKilled();
    if (role == "--peak-memory") return printPeakMemory();
    Bench::initialize(&argc, argv);
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
    try {
        storage = loaded.local();
    } catch (const Client::Error& error) {
        std::fprintf(stderr, "no local client: %s\n", error.what());
        return 1;
    }

    benchmark::RegisterBenchmark("thread create and join", threadCreateAndJoin)->UseRealTime();
    std::vector<std::size_t> sizes = {Bench::payloadBytes};
    sizes.insert(sizes.end(), std::begin(largeSizes), std::end(largeSizes));
    for (const std::size_t bytes : sizes) {
        const Names names(bytes);
        const std::size_t sent = bytes <= Bench::payloadBytes ? bytes : 2 * bytes;
        benchmark::RegisterBenchmark(names.roundTrip.c_str(), roundTripToAnotherProcess, sent)
            ->UseRealTime();
        benchmark::RegisterBenchmark(names.overwrite.c_str(), fileOverwrite, bytes)->UseRealTime();
        benchmark::RegisterBenchmark(names.read.c_str(), fileRead, bytes)->UseRealTime();
        benchmark::RegisterBenchmark(names.localWrite.c_str(), localWrite, bytes)->UseRealTime();
        benchmark::RegisterBenchmark(names.localRead.c_str(), localRead, bytes)->UseRealTime();
    }
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

    const Names small(Bench::payloadBytes);
    const double common = reporter.time("thread create and join") + reporter.time(small.roundTrip);
    printRatio(reporter, "write " + small.size, small.localWrite,
               common + reporter.time(small.overwrite), 1.15);
    printOthers(reporter, small.localWrite, "redis SET", "sqlite replace");
    printRatio(reporter, "read " + small.size, small.localRead, common + reporter.time(small.read),
               1.2);
    printOthers(reporter, small.localRead, "redis GET", "sqlite select");
    for (const std::size_t bytes : largeSizes) {
        const Names names(bytes);
        const double roundTrip = reporter.time(names.roundTrip);
        printRatio(reporter, "write " + names.size, names.localWrite,
                   roundTrip + reporter.time(names.overwrite), 3);
        printRatio(reporter, "read " + names.size, names.localRead,
                   roundTrip + reporter.time(names.read), 3);
    }

    // Real time per iteration of all threads together: two operations.
    const double shared = reporter.time("8 threads, one client");
    const double unshared = reporter.time("8 threads, a client each");
    if (shared > 0 && unshared > 0) {
        std::printf(
            "\n8 threads: one shared client %.0f operations/s, a client each %.0f "
            "operations/s: sharing gives %.2fx\n",
            2e9 / shared, 2e9 / unshared, unshared / shared);
    }

    printRecovery(bus);
    printContendedReads();
    std::fflush(stdout);
    const auto memory = Testing::runProgram(
        {std::filesystem::read_symlink("/proc/self/exe"), "--peak-memory"}, data.path());
    std::fputs(memory.output.c_str(), stdout);
    if (memory.exitStatus != 0) std::printf("the peak memory run failed: %s\n", memory.errors.c_str());

    storage.reset();
    ::close(echoSocket);
    ::kill(echo, SIGKILL);
    ::waitpid(echo, nullptr, 0);
    benchmark::Shutdown();
}
