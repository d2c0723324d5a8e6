// One host serving many clients at once: 1, 8 and 64 local clients, each on
// a thread of its own with a client of its own (Client.hpp over the built
// library), split between this process and a second one, alternate 100-byte
// writes and reads of a key of their own for a bounded time and count. Prints
// the operations per second and the latency percentiles (p50, p99) for each
// count, and how many times the operations per second of one client eight
// reach (target on 2 cores: at least 1.5x).
//
// Beside it, Redis over a Unix socket with as many connections, split the
// same way, doing SET and GET of the same 100 bytes: the bench starts its own
// redis-server, without persistence, in a temporary folder, when one is
// installed, and leaves that column out saying why when not.
//
// The files live under TMPDIR (else /tmp). On ext4 the close of each
// overwrite starts writeback, which then dominates one client's latency;
// TMPDIR=/dev/shm leaves the path between the processes to measure.
//
// Every process started here ends with the bench: the second process and
// redis-server are killed by process id at the end and die with this
// process if it is killed first; the private bus takes the host with it.
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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <latch>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BareTransfer.h"
#include "Quorvendale/Client.hpp"
#include "ServiceIdentity.h"
#include "Support/PrivateBus.h"

namespace {

using namespace Quorvendale;
using Bench::transfer;
using Clock = std::chrono::steady_clock;

const std::string payload(100, 'v');

enum class Kind : std::int32_t { store, redis };

struct Limits {
    std::chrono::milliseconds duration{2000};
    std::int64_t operationsPerClient = 200'000;
    bool withRedis = true;
};

// Redis's protocol, as much as SET and GET need.
class Redis {
public:
    explicit Redis(const std::string& socketPath) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
        descriptor_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(descriptor_);
            throw std::runtime_error("cannot connect to redis-server");
        }
    }
    ~Redis() { ::close(descriptor_); }
    Redis(const Redis&) = delete;
    Redis& operator=(const Redis&) = delete;

    void set(const std::string& key, const std::string& value) {
        send("*3\r\n$3\r\nSET\r\n$" + std::to_string(key.size()) + "\r\n" + key + "\r\n$" +
             std::to_string(value.size()) + "\r\n" + value + "\r\n");
        if (readLine() != "+OK") throw std::runtime_error("redis SET failed");
    }

    std::string get(const std::string& key) {
        send("*2\r\n$3\r\nGET\r\n$" + std::to_string(key.size()) + "\r\n" + key + "\r\n");
        const std::string header = readLine();
        if (header.size() < 2 || header[0] != '$' || header == "$-1") {
            throw std::runtime_error("redis GET failed");
        }
        const std::size_t size = std::stoul(header.substr(1));
        while (received_.size() < size + 2) receive();
        std::string value = received_.substr(0, size);
        received_.erase(0, size + 2);
        return value;
    }

private:
    void send(std::string command) {
        if (!transfer(descriptor_, command.data(), command.size(), false)) {
            throw std::runtime_error("redis-server went away");
        }
    }
    // A whole reply nearly always comes in one read: one system call per
    // reply on each side, as any Redis client makes.
    void receive() {
        char bytes[4096];
        const ssize_t count = ::read(descriptor_, bytes, sizeof bytes);
        if (count <= 0) throw std::runtime_error("redis-server went away");
        received_.append(bytes, static_cast<std::size_t>(count));
    }
    std::string readLine() {
        std::size_t end;
        while ((end = received_.find("\r\n")) == std::string::npos) receive();
        std::string line = received_.substr(0, end);
        received_.erase(0, end + 2);
        return line;
    }

    std::string received_;
    int descriptor_ = -1;
};

// What the clients of one process did in one round.
struct Round {
    std::vector<std::int64_t> latencies;  // nanoseconds, one per operation
    std::int64_t failures = 0;            // clients that failed, and stopped
    double seconds = 0;                   // from the start signal to the last client's end
};

// Where the clients of both processes find what they use.
const Client::Library* library = nullptr;
std::string redisSocket;

// The signal that starts the clients of a round, and when they stop: the
// deadline is written before the signal is given.
struct Start {
    Clock::time_point deadline;
    std::atomic<bool> given{false};
};

// One client: opens, writes its key once, waits for the start, then writes
// and reads in turn until the time or its count is up. Any failure stops it
// and counts; it still passes both meeting points, so no other thread waits
// for it in vain.
void runClient(Kind kind, const std::string& key, const Limits& limits, std::latch& ready,
               const Start& start, std::vector<std::int64_t>& latencies,
               std::atomic<std::int64_t>& failures) {
    std::optional<Client::Storage> storage;
    std::optional<Redis> redis;
    bool arrived = false;
    try {
        if (kind == Kind::store) {
            storage = library->local();
            if (!storage) throw std::runtime_error("no local client");
        } else {
            redis.emplace(redisSocket);
        }
        const auto write = [&] {
            kind == Kind::store ? storage->write("throughput", key, payload)
                                : redis->set(key, payload);
        };
        const auto read = [&] {
            const std::string value =
                kind == Kind::store ? storage->read("throughput", key) : redis->get(key);
            if (value.size() != payload.size()) throw std::runtime_error("read a wrong value");
        };
        write();
        latencies.reserve(
            static_cast<std::size_t>(std::min<std::int64_t>(limits.operationsPerClient, 16384)));
        ready.arrive_and_wait();
        arrived = true;
        start.given.wait(false);
        const Clock::time_point end = start.deadline;
        for (std::int64_t done = 0; done < limits.operationsPerClient; ++done) {
            const Clock::time_point begun = Clock::now();
            if (begun >= end) break;
            done % 2 == 0 ? write() : read();
            latencies.push_back((Clock::now() - begun).count());
        }
    } catch (const std::exception& error) {
        if (failures.fetch_add(1) == 0) std::fprintf(stderr, "a client failed: %s\n", error.what());
        if (!arrived) ready.arrive_and_wait();
    }
}

// Runs `clients` clients of this process at once. `meet` runs once all of
// them are open, just before the start: it lines this process up with the
// other one.
template <class Meet>
Round runClients(Kind kind, int clients, const Limits& limits, const std::string& keyPrefix,
                 Meet meet) {
    std::latch ready(clients + 1);
    Start start;
    std::atomic<std::int64_t> failures{0};
    std::vector<std::vector<std::int64_t>> latencies(static_cast<std::size_t>(clients));
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back(runClient, kind, keyPrefix + std::to_string(i), std::cref(limits),
                             std::ref(ready), std::cref(start),
                             std::ref(latencies[static_cast<std::size_t>(i)]), std::ref(failures));
    }
    ready.arrive_and_wait();
    // Should the other process fail to line up, the clients start with no
    // time left, so that they end before the failure goes on.
    const auto release = [&](Clock::duration time) {
        start.deadline = Clock::now() + time;
        start.given.store(true);
        start.given.notify_all();
        for (std::thread& thread : threads) thread.join();
    };
    try {
        meet();
    } catch (...) {
        release(Clock::duration::zero());
        throw;
    }
    const Clock::time_point begun = Clock::now();
    release(limits.duration);
    Round round;
    round.seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    round.failures = failures.load();
    for (const auto& some : latencies) {
        round.latencies.insert(round.latencies.end(), some.begin(), some.end());
    }
    return round;
}

// The second process's orders, and its one-byte signals on the same socket.
struct Order {
    Kind kind;
    std::int32_t clients;  // 0: end
};
constexpr char readySignal = 'r';
constexpr char startSignal = 's';

bool sendBytes(int socket, const void* bytes, std::size_t size) {
    return transfer(socket, static_cast<char*>(const_cast<void*>(bytes)), size, false);
}
bool receiveBytes(int socket, void* bytes, std::size_t size) {
    return transfer(socket, static_cast<char*>(bytes), size, true);
}

// The second process: runs each order's clients in step with the first and
// sends back what they did.
[[noreturn]] void serveOrders(int socket, const Limits& limits) {
    try {
        const Client::Library loaded(QV_STORAGE_LIBRARY);
        library = &loaded;
        Order order{};
        while (receiveBytes(socket, &order, sizeof order) && order.clients > 0) {
            const Round round = runClients(order.kind, order.clients, limits, "second-", [&] {
                char signal = readySignal;
                if (!sendBytes(socket, &signal, 1) || !receiveBytes(socket, &signal, 1)) {
                    throw std::runtime_error("the first process went away");
                }
            });
            const std::uint64_t count = round.latencies.size();
            if (!sendBytes(socket, &round.seconds, sizeof round.seconds) ||
                !sendBytes(socket, &round.failures, sizeof round.failures) ||
                !sendBytes(socket, &count, sizeof count) ||
                !sendBytes(socket, round.latencies.data(), count * sizeof(std::int64_t))) {
                break;
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "second process: %s\n", error.what());
        ::_exit(1);
    }
    ::_exit(0);
}

// A process this one started, killed by its id at the end whatever happens.
// Started before this process has threads, so that the child may run
// anything; it dies with this process if that ends first.
class Child {
public:
    template <class Body>
    explicit Child(Body body) {
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("fork failed");
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            body();
            ::_exit(127);
        }
    }
    ~Child() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

private:
    pid_t pid_ = -1;
};

// redis-server's path from PATH, or empty.
std::string findRedisServer() {
    const char* path = std::getenv("PATH");
    std::string folders = path ? path : "/usr/bin:/bin";
    for (std::size_t from = 0; from <= folders.size();) {
        const std::size_t to = std::min(folders.find(':', from), folders.size());
        const std::string candidate = folders.substr(from, to - from) + "/redis-server";
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        from = to + 1;
    }
    return {};
}

struct Percentiles {
    double operationsPerSecond = 0;
    double p50 = 0;  // microseconds
    double p99 = 0;
    std::int64_t failures = 0;
};

Percentiles summarize(std::vector<Round> rounds) {
    Percentiles summary;
    std::vector<std::int64_t> all;
    for (const Round& round : rounds) {
        if (round.seconds > 0)
            summary.operationsPerSecond += round.latencies.size() / round.seconds;
        summary.failures += round.failures;
        all.insert(all.end(), round.latencies.begin(), round.latencies.end());
    }
    if (all.empty()) return summary;
    std::sort(all.begin(), all.end());
    summary.p50 = all[all.size() / 2] / 1e3;
    summary.p99 = all[std::min(all.size() - 1, all.size() * 99 / 100)] / 1e3;
    return summary;
}

// One client count: half the clients (the larger half) here, the rest in the
// second process, started together.
Percentiles measure(Kind kind, int clients, const Limits& limits, int second) {
    const Order order{kind, clients / 2};
    if (order.clients > 0 && !sendBytes(second, &order, sizeof order)) {
        throw std::runtime_error("the second process went away");
    }
    std::vector<Round> rounds;
    rounds.push_back(runClients(kind, clients - order.clients, limits, "first-", [&] {
        char signal = 0;
        if (order.clients == 0) return;
        if (!receiveBytes(second, &signal, 1) || signal != readySignal) {
            throw std::runtime_error("the second process did not get ready");
        }
        signal = startSignal;
        sendBytes(second, &signal, 1);
    }));
    if (order.clients > 0) {
        Round& theirs = rounds.emplace_back();
        std::uint64_t count = 0;
        if (!receiveBytes(second, &theirs.seconds, sizeof theirs.seconds) ||
            !receiveBytes(second, &theirs.failures, sizeof theirs.failures) ||
            !receiveBytes(second, &count, sizeof count) || count > (1ULL << 32)) {
            throw std::runtime_error("the second process went away");
        }
        theirs.latencies.resize(count);
        if (!receiveBytes(second, theirs.latencies.data(), count * sizeof(std::int64_t))) {
            throw std::runtime_error("the second process went away");
        }
    }
    return summarize(std::move(rounds));
}

void printUsage() {
    std::printf(
        "Usage: ThroughputBench [--seconds S] [--operations N] [--without-redis]\n"
        "One host serving 1, 8 and 64 local clients at once, beside redis-server over a\n"
        "Unix socket with as many connections: 100-byte writes and reads in turn.\n"
        "  --seconds S      how long each client count runs (default 2)\n"
        "  --operations N   the most operations of one client in one run (default 200000)\n"
        "  --without-redis  leave Redis out even when redis-server is installed\n");
}

int run(const Limits& limits) {
    Testing::TemporaryFolder data;
    Testing::ScopedEnvironment dataHome("XDG_DATA_HOME", data.path().c_str());
    Testing::TemporaryFolder services;
    {
        std::ifstream built(QV_BUILD_SERVICE_FILE);
        std::ofstream(services.path() /
                      (std::string(ServiceIdentity::packageFamilyName) + ".service"))
            << built.rdbuf();
    }
    Testing::PrivateBus bus(services.path());

    // Both children before any thread of this process.
    std::optional<Child> redisServer;
    std::string redisAbsent;
    if (!limits.withRedis) {
        redisAbsent = "--without-redis";
    } else if (const std::string server = findRedisServer(); server.empty()) {
        redisAbsent = "no redis-server on PATH (apt-get install redis-server to compare)";
    } else {
        redisSocket = (data.path() / "redis.sock").string();
        const std::string folder = data.path().string();
        redisServer.emplace([&] {
            const int null = ::open("/dev/null", O_RDWR);
            ::dup2(null, 1);
            ::dup2(null, 2);
            ::execl(server.c_str(), server.c_str(), "--port", "0", "--unixsocket",
                    redisSocket.c_str(), "--save", "", "--appendonly", "no", "--dir",
                    folder.c_str(), static_cast<char*>(nullptr));
        });
    }
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::runtime_error("socketpair failed");
    }
    Child second([&] {
        ::close(ends[0]);
        serveOrders(ends[1], limits);
    });
    ::close(ends[1]);
    const int toSecond = ends[0];

    const Client::Library loaded(QV_STORAGE_LIBRARY);
    library = &loaded;
    if (redisServer) {
        const auto limit = Clock::now() + std::chrono::seconds(5);
        while (::access(redisSocket.c_str(), F_OK) != 0 && Clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (::access(redisSocket.c_str(), F_OK) != 0) {
            redisAbsent = "redis-server did not open its socket within 5 s";
        }
    }

    std::printf("%7s  %12s %9s %9s   %12s %9s %9s\n", "clients", "store ops/s", "p50 us", "p99 us",
                "redis ops/s", "p50 us", "p99 us");
    std::map<int, double> storeRate, redisRate;  // operations per second by client count
    for (const int clients : {1, 8, 64}) {
        const Percentiles store = measure(Kind::store, clients, limits, toSecond);
        storeRate[clients] = store.operationsPerSecond;
        std::printf("%7d  %12.0f %9.1f %9.1f", clients, store.operationsPerSecond, store.p50,
                    store.p99);
        std::optional<Percentiles> redis;
        if (redisAbsent.empty()) {
            redis = measure(Kind::redis, clients, limits, toSecond);
            redisRate[clients] = redis->operationsPerSecond;
            std::printf("   %12.0f %9.1f %9.1f", redis->operationsPerSecond, redis->p50,
                        redis->p99);
        }
        if (store.failures > 0)
            std::printf("  (%lld clients failed)", static_cast<long long>(store.failures));
        if (redis && redis->failures > 0) {
            std::printf("  (%lld redis clients failed)", static_cast<long long>(redis->failures));
        }
        std::printf("\n");
        std::fflush(stdout);
    }
    const Order end{Kind::store, 0};
    sendBytes(toSecond, &end, sizeof end);
    ::close(toSecond);

    std::printf("\n8 clients against 1: store %.2fx (target >= 1.5x on 2 cores)",
                storeRate[8] / storeRate[1]);
    if (redisAbsent.empty()) std::printf(", redis %.2fx", redisRate[8] / redisRate[1]);
    std::printf("\n");
    if (!redisAbsent.empty()) std::printf("redis column left out: %s\n", redisAbsent.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Limits limits;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            printUsage();
            return 0;
        }
        if (option == "--without-redis") {
            limits.withRedis = false;
            continue;
        }
        if ((option == "--seconds" || option == "--operations") && i + 1 < argc) {
            const double value = std::atof(argv[++i]);
            if (value <= 0) {
                std::fprintf(stderr, "ThroughputBench: %s needs a positive number\n",
                             option.c_str());
                return 2;
            }
            if (option == "--seconds") {
                limits.duration =
                    std::chrono::milliseconds(static_cast<std::int64_t>(value * 1000));
            } else {
                limits.operationsPerClient = static_cast<std::int64_t>(value);
            }
            continue;
        }
        std::fprintf(stderr, "ThroughputBench: unknown option %s (see --help)\n", option.c_str());
        return 2;
    }
    try {
        return run(limits);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ThroughputBench: %s\n", error.what());
        return 1;
    }
}
