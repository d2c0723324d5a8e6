// The local client through Client.hpp, against the real host that a private
// bus starts, serving the storage service or the scripted one.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>
#include <vector>

#include "Quorvendale/Client.hpp"
#include "Support/StorageServiceBus.h"

namespace Quorvendale {
namespace {

namespace fs = std::filesystem;
using Client::Storage;
using Testing::PrivateBus;

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

class LocalStorageClientTest : public testing::Test, protected Testing::StorageServiceBus {
protected:
    Storage connect() { return library().local().value(); }
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
    Storage storage = connect();
    EXPECT_TRUE(storage.exists());
    // Text travels as UTF-16: a value ends at its first zero byte.
    storage.write("g", "zero", std::string("ab\0cd", 5));
    EXPECT_EQ(storage.read("g", "zero"), "ab");
    storage.write("g", "empty", "");
    EXPECT_EQ(storage.read("g", "empty"), "");
    const std::string large(1 << 20, 'x');
    storage.write("g", "large", large);
    EXPECT_EQ(storage.read("g", "large"), large);
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
    EXPECT_NE(failureOf([&] { storage.read("g", "Success"); }).find("message: status \"Success\""),
              std::string::npos);
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

// Eight threads on their own keys, reading missing keys now and then: every
// operation succeeds or fails for its own reason unless it was under way
// while a host was gone, and every value reads back.
struct Load {
    bool shared;
    int kills;
};

class LoadTest : public LocalStorageClientTest, public testing::WithParamInterface<Load> {};

TEST_P(LoadTest, SharedAndUnsharedClientsGiveTheSameResults) {
    constexpr int threads = 8, rounds = 300;
    const Load load = GetParam();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    startBus();
    const Storage first = connect();
    const pid_t served = host();
    // An operation was under way while a host was gone when more kills had
    // begun by its end than replacement hosts were up at its start.
    std::atomic<int> killed{0}, replaced{0}, rounded{0}, changed{0}, excused{0}, wrong{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const std::string group = "thread" + std::to_string(t);
            // Whether it failed with the expected text ("": did not fail).
            const auto check = [&](const std::string& expected, auto operation) {
                const int up = replaced;
                std::string what = expected.empty() ? "" : "succeeded";
                try {
                    operation();
                } catch (const std::exception& error) {
                    const std::string text = error.what();
                    what = !expected.empty() && text.find(expected) != std::string::npos
                               ? ""
                               : "failed: " + text;
                }
                if (!what.empty() && killed <= up && ++wrong <= 3) ADD_FAILURE() << what;
                excused += !what.empty() && killed > up;
                return what.empty();
            };
            std::optional<Storage> own;
            if (!load.shared && !check("", [&] { own = connect(); })) return;
            const Storage& storage = load.shared ? first : *own;
            for (int i = 0; i < rounds && std::chrono::steady_clock::now() < deadline; ++i) {
                const std::string key = std::to_string(i), value = group + "/" + key;
                if (check("", [&] { storage.write(group, key, value); })) {
                    check("", [&] { changed += storage.read(group, key) != value; });
                }
                if (i % 4 == 0) {
                    const fs::path missing = localState() / group / ("missing" + key);
                    check("message: Read file error: file " + missing.string() + " is not exist",
                          [&] { storage.read(group, missing.filename().string()); });
                }
                ++rounded;
            }
        });
    }
    for (int k = 1; k <= load.kills; ++k) {
        const auto waitFor = [&](auto done) {
            while (!done() && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        };
        waitFor([&] { return rounded >= k * threads * rounds / (load.kills + 1); });
        const pid_t before = host();
        ++killed;
        killHost();
        waitFor([&] { return bus_->ownerOf(Testing::storagePackage).value_or(before) != before; });
        ++replaced;
    }
    for (std::thread& worker : workers) worker.join();
    EXPECT_EQ(rounded, threads * rounds);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(wrong, 0);
    if (load.kills == 0) {
        EXPECT_EQ(host(), served);
    } else {
        // With nothing under way, the operation after a kill starts the next host.
        first.write("g", "k", "before");
        killHost();
        EXPECT_EQ(first.read("g", "k"), "before");
        std::printf("%d operations under way at a kill failed\n", excused.load());
    }
}

INSTANTIATE_TEST_SUITE_P(Clients, LoadTest,
                         testing::Values(Load{false, 0}, Load{true, 0}, Load{false, 2},
                                         Load{true, 2}),
                         [](const auto& row) {
                             return std::string(row.param.shared ? "Shared" : "Unshared") +
                                    (row.param.kills ? "WhileTheHostIsKilled" : "");
                         });

}  // namespace
}  // namespace Quorvendale
