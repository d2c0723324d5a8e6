// The local client through Client.hpp, against the real host that a private
// bus starts, serving the storage service or the scripted one.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "Quorvendale/Client.hpp"
#include "Quorvendale/Limits.h"
#include "Support/StorageServiceBus.h"

namespace Quorvendale {
namespace {

namespace fs = std::filesystem;
using Client::Storage;
using Testing::PrivateBus;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const Client::Library& library() {
    static const Client::Library loaded(QV_STORAGE_LIBRARY);
    return loaded;
}

template <class Call>
std::string failureOf(Call call) {
    try {
        call();
    } catch (const Client::Error& error) {
        EXPECT_EQ(error.code(), QV_E_FAIL);
        return error.what();
    }
    ADD_FAILURE() << "the call succeeded";
    return {};
}

// The same host serving the scripted service instead.
const std::string scripted =
    " --entry-point Test.ScriptedService --library \"" QV_SCRIPTED_SERVICE "\"";

// Sanitizers and emulators: slower, and freed memory is kept a while.
constexpr bool slowBuild = QV_SLOW_BUILD;

class LocalStorageClientTest : public testing::Test, protected Testing::StorageServiceBus {
protected:
    Storage connect() { return library().local(); }
    void killHost() {
        const pid_t running = host();
        ::kill(running, SIGKILL);
        ASSERT_TRUE(PrivateBus::exitStatusOf(running).has_value());
    }
    std::vector<std::string> requests() const {
        std::ifstream log(localState() / "requests.log");
        std::vector<std::string> lines;
        for (std::string line; std::getline(log, line);) lines.push_back(line);
        return lines;
    }
};

// Every command, CR LF on disk and the listing are qvstore's session tests,
// through this same client; here, what qvstore cannot send.
TEST_F(LocalStorageClientTest, ValuesQvstoreCannotSendReachTheService) {
    startBus();
    // A client handed in as it comes from the C interface: Client.hpp checks
    // nothing, so the library's own handling shows.
    const Storage storage(connect().ptr());
    // Text travels as UTF-16: a value ends at its first zero byte.
    storage.write("g", "zero", std::string("ab\0cd", 5));
    EXPECT_EQ(storage.read("g", "zero"), "ab");
    storage.write("g", "empty", "");
    EXPECT_EQ(storage.read("g", "empty"), "");
}

TEST_F(LocalStorageClientTest, ARejectedRequestIsSentTwiceOnTwoConnectionsThenFails) {
    startBus(scripted);
    Storage storage = connect();
    // Data is sent as an empty string, not left out.
    storage.write("g", "written", "");
    EXPECT_EQ(requests().back(), "1 write written");

    // Eight threads on the one client: each request goes exactly twice, the
    // second time on a later connection, and fails with the service's report.
    std::vector<std::thread> workers;
    for (int t = 0; t < 8; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                const std::string key = "reject-" + std::to_string(t) + "-" + std::to_string(i);
                const std::string text = failureOf([&] { storage.read("g", key); });
                EXPECT_TRUE(text.find("UwpLocalStorageClient::executeCommand\n") != std::string::npos &&
                            text.find("message: rejected by the scripted service") != std::string::npos)
                    << text;
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    std::map<std::string, std::vector<int>> sentOn;  // the connections of each key's request
    for (const std::string& line : requests()) {
        if (line.find(" reject-") != std::string::npos) {
            sentOn[line.substr(line.rfind(' ') + 1)].push_back(std::stoi(line));
        }
    }
    EXPECT_EQ(sentOn.size(), 8u * 20);
    for (const auto& [key, connections] : sentOn) {
        EXPECT_TRUE(connections.size() == 2 && connections[0] < connections[1]) << key;
    }
}

TEST_F(LocalStorageClientTest, RepliesAreCheckedToTheLetter) {
    startBus(scripted);
    Storage storage = connect();
    EXPECT_EQ(storage.read("g", "null-response"), "");
    EXPECT_EQ(storage.next("g", "echoed"), "echoed");
    // Platform errors reach the caller narrowed as they stand: the first
    // character of "The operation attempted to access data outside the valid range".
    EXPECT_EQ(failureOf([&] { storage.read("g", "no-response"); }), "T");
    EXPECT_EQ(failureOf([&] { storage.remove("g", "no-status"); }), "T");
    EXPECT_NE(failureOf([&] { storage.read("g", "success "); }).find("message: status \"success \""),
              std::string::npos);
}

TEST_F(LocalStorageClientTest, WithTheServiceGoneOperationsFailAndExistsSaysNoOnce) {
    startBus();
    Storage storage = connect();
    fs::remove(serviceFile());
    bus_->reloadServices();
    killHost();

    const std::string report = failureOf([&] { storage.write("g", "k", "v"); });
    EXPECT_NE(report.find("function: Quorvendale::StorageClient::UwpLocalStorageClient::connect"),
              std::string::npos);
    EXPECT_NE(report.find("message: AppNotInstalled"), std::string::npos);

    testing::internal::CaptureStdout();
    const bool exists = storage.exists();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "exception in UwpLocalStorageClient::exists()\n");
    EXPECT_FALSE(exists);

    // exists never reconnects; an operation's retry does.
    install();
    bus_->reloadServices();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(storage.exists());
    testing::internal::GetCapturedStdout();
    storage.write("g", "k", "back");
    EXPECT_TRUE(storage.exists());
}

fs::path self() { return fs::read_symlink("/proc/self/exe"); }

// One soak process: four threads (two on clients of their own) write, remove,
// read and list eight keys of their own, knowing what each must hold. Only
// while no host is up (`markers`/killed there, `markers`/replaced not yet)
// may an operation fail; its key is then unknown until read.
int soak(const std::string& name, const fs::path& markers, std::chrono::seconds length) {
    const std::string absent = "<absent>", unknown = "<unknown>";
    const auto end = Clock::now() + length;
    const Storage shared = library().local();
    std::atomic<int> wrong{0}, failed{0};
    std::vector<std::jthread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([&, t] {
            const std::string group = name + std::to_string(t);
            const Storage storage = t % 2 ? library().local() : shared;
            std::map<std::string, std::string> holds;
            const auto check = [&](bool right, const std::string& what) {
                if (!right && ++wrong <= 5)
                    std::fprintf(stderr, "%s: %s\n", group.c_str(), what.c_str());
            };
            const auto step = [&](int operation, const std::string& key, const std::string& value) {
                std::string& held = holds.try_emplace(key, absent).first->second;
                const bool replaced = fs::exists(markers / "replaced");
                try {
                    if (operation == 1 && held != absent && held != unknown) {
                        storage.remove(group, key);
                        held = absent;
                    } else if (operation < 2) {
                        storage.write(group, key, value);
                        held = value;
                    } else if (operation == 2) {
                        std::string got = absent;
                        try {
                            got = storage.read(group, key);
                        } catch (const Client::Error& error) {
                            if (!std::string(error.what()).contains(" is not exist")) throw;
                        }
                        // Unknown, it holds one of its own values, or part of one a kill tore.
                        const std::string own = group + "/" + key + "/";
                        check(held == unknown
                                  ? got == absent || own.starts_with(got.substr(0, own.size()))
                                  : got == held,
                              key + " holds " + got + ", not " + held);
                        held = got;
                    } else {
                        std::set<std::string> listed;
                        std::string next;
                        for (int n = 0; n < 10 && !(next = storage.next(group, next)).empty(); ++n)
                            listed.insert(next);
                        for (const auto& [k, v] : holds)
                            check(v == unknown || listed.contains(k) == (v != absent),
                                  "listed: " + k);
                        for (const std::string& k : listed)
                            check(holds.contains(k), "listed: " + k);
                    }
                } catch (const std::exception& error) {
                    ++failed;
                    check(!replaced && fs::exists(markers / "killed"), error.what());
                    if (operation < 2) held = unknown;
                }
            };
            std::minstd_rand random(std::hash<std::string>()(group));
            for (int i = 0; i < 1'000'000 && Clock::now() < end; ++i) {
                const std::string key = std::to_string(random() % 8);
                step(i == 0 ? 0 : random() % 4, key, group + "/" + key + "/" + std::to_string(i));
            }
            for (int k = 0; k < 8; ++k) step(2, std::to_string(k), "");
            step(3, "0", "");
        });
    }
    workers.clear();
    std::printf("soak %s: %d failed while no host was up\n", name.c_str(), failed.load());
    return std::min(wrong.load(), 100);
}

// Three such processes while the host is killed halfway and the next Open
// starts another, which ends no bigger than the first began.
TEST_F(LocalStorageClientTest, ASoakOfProcessesAndThreadsWhileTheHostIsKilledHalfway) {
    startBus();
    const Storage storage = connect();
    storage.write("g", "k", "kept");
    const Use start = hostUse();
    // A minute, less in a slow build; QV_SOAK_SECONDS makes it longer.
    const char* given = std::getenv("QV_SOAK_SECONDS");
    const std::chrono::seconds length(given ? std::atoi(given) : slowBuild ? 20 : 60);
    std::list<Testing::ChildProcess> processes;
    for (const char* name : {"a", "b", "c"}) {
        processes.emplace_back(std::vector<std::string>{self(), "--soak", name, package_.base(),
                                                        std::to_string(length.count())});
    }
    std::this_thread::sleep_for(length / 2);
    std::ofstream{package_.base() / "killed"};
    killHost();
    EXPECT_EQ(storage.read("g", "k"), "kept");
    std::ofstream{package_.base() / "replaced"};
    for (Testing::ChildProcess& process : processes) {
        const auto status = process.wait(length + 30s);
        EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    }
    expectBackToIdle(start, slowBuild);
}

// Waits for a file another process makes; false after `limit`.
bool appears(const fs::path& file, std::chrono::seconds limit) {
    const auto end = Clock::now() + limit;
    while (!fs::exists(file)) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// As an application with 64 clients, more than the runtime's pool has
// threads: all write and read at once, then again after each of two host
// kills (`folder`/killed-N), when every client reconnects at once.
int sixtyFourClients(const fs::path& folder) {
    std::vector<Storage> clients;
    for (int c = 0; c < 64; ++c) clients.push_back(library().local());
    for (int round = 0;; ++round) {
        std::atomic<int> failed{0};
        std::vector<std::jthread> threads;
        for (int c = 0; c < 64; ++c) {
            threads.emplace_back([&, c] {
                const std::string key = std::to_string(c), value = key + "/" + std::to_string(round);
                try {
                    clients[c].write("many", key, value);
                    failed += clients[c].read("many", key) != value;
                } catch (const std::exception& error) {
                    std::fprintf(stderr, "client %d: %s\n", c, error.what());
                    ++failed;
                }
            });
        }
        threads.clear();
        if (failed > 0 || round == 2) return failed;
        std::ofstream{folder / ("round-" + std::to_string(round))};
        if (!appears(folder / ("killed-" + std::to_string(round)), 60s)) return 100;
    }
}

TEST_F(LocalStorageClientTest, SixtyFourClientsInOneProcessRecoverFromEachHostKill) {
    startBus();
    Testing::ChildProcess application({self(), "--sixty-four-clients", package_.base()});
    for (const std::string round : {"0", "1"}) {
        ASSERT_TRUE(appears(package_.base() / ("round-" + round), 60s)) << "round " << round;
        killHost();
        std::ofstream{package_.base() / ("killed-" + round)};
    }
    // One activation, with time to spare, and the work of 128 operations.
    const auto status = application.wait(slowBuild ? 60s : 20s);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
}

// As another application: overwrites one entry `rounds` times, each value
// of `size` bytes and all of one letter.
int overwrite(std::size_t size, int rounds) {
    const Storage storage = library().local();
    for (int i = 0; i < rounds; ++i) storage.write("shared", "entry", std::string(size, 'a' + i % 26));
    return 0;
}

TEST_F(LocalStorageClientTest, ReadsWhileAnotherProcessOverwritesSeeOnlyWholeValues) {
    startBus();
    const Storage storage = connect();
    for (const std::size_t size : {2u << 10, 100u << 10}) {
        storage.write("shared", "entry", std::string(size, 'z'));
        // 2,000 overwrites; a tenth as many where a sanitizer makes each
        // several times slower.
        Testing::ChildProcess writer(
            {self(), "--overwrite", std::to_string(size), slowBuild ? "200" : "2000"});
        int reads = 0, torn = 0;
        for (; reads < 200'000 && (reads % 32 != 0 || !writer.wait(0ms)); ++reads) {
            const std::string got = storage.read("shared", "entry");
            torn += got.size() != size || got.find_first_not_of(got[0]) != std::string::npos;
        }
        EXPECT_EQ(torn, 0) << "of " << reads << " reads of " << size << " bytes";
        const auto status = writer.wait();
        EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    }
}

// Refused before anything is sent: with the service gone for good, the
// refusal still names the sizes, not the missing service.
TEST_F(LocalStorageClientTest, PastTheLimitsInputIsRefusedAtOnceAndTheLimitsThemselvesAreCarried) {
    startBus();
    // As from the C interface: Client.hpp's own checks would refuse first.
    const Storage storage(connect().ptr());
    const std::string name(QV_LOCAL_MAX_NAME_BYTES, 'n');
    std::string value(QV_LOCAL_MAX_VALUE_BYTES, 'v');
    storage.write(name, name, value);
    EXPECT_TRUE(storage.read(name, name) == value);
    fs::remove(serviceFile());
    bus_->reloadServices();
    killHost();
    value += 'v';
    EXPECT_EQ(failureOf([&] { storage.write("g", "k", value); }),
              "The value is too large: 32505857 bytes, the largest the local client carries is "
              "32505856 bytes");
    EXPECT_EQ(failureOf([&] { storage.read(name + 'n', "k"); }),
              "The group is too long: 256 bytes, the longest the local client carries is 255 bytes");
    EXPECT_EQ(failureOf([&] { storage.next("g", name + 'n'); }),
              "The key is too long: 256 bytes, the longest the local client carries is 255 bytes");
}

}  // namespace
}  // namespace Quorvendale

// Run again as another application, or as the tests.
int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "--sixty-four-clients" && argc == 3) return Quorvendale::sixtyFourClients(argv[2]);
    if (role == "--overwrite" && argc == 4)
        return Quorvendale::overwrite(std::stoul(argv[2]), std::atoi(argv[3]));
    if (role == "--soak" && argc == 5)
        return Quorvendale::soak(argv[2], argv[3], std::chrono::seconds(std::atoi(argv[4])));
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
