// The local storage client from the outside: a program loads the built
// library through the public C++ header, asks slot 4 for a client, and a
// private bus starts the real host, which serves either the storage service
// or, for replies no real store gives, the scripted service of
// ScriptedService.cpp.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "ServiceIdentity.h"
#include "Quorvendale/Client.hpp"
#include "Support/ChildProcess.h"
#include "Support/PrivateBus.h"

namespace Quorvendale {
namespace {

namespace fs = std::filesystem;
using Client::Storage;
using Testing::contentOf;
using Testing::PrivateBus;

constexpr const char* storagePackage = Quorvendale::ServiceIdentity::packageFamilyName.data();

const Client::Library& library() {
    static const Client::Library loaded(QV_STORAGE_LIBRARY);
    return loaded;
}

// The storage service's service file, or the same host serving the scripted
// service instead.
void install(const fs::path& folder, bool scripted = false) {
    std::string file = contentOf(QV_BUILD_SERVICE_FILE);
    if (scripted) {
        const std::size_t entryPoint = file.find("--entry-point ") + 14;
        file.replace(entryPoint, file.find(' ', entryPoint) - entryPoint, "Test.ScriptedService");
        const std::string library = QV_STORAGE_LIBRARY;
        file.replace(file.find(library), library.size(), QV_SCRIPTED_SERVICE);
    }
    fs::create_directories(folder);
    std::ofstream(folder / (std::string(storagePackage) + ".service")) << file;
}

// The message of a call that must fail.
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

class LocalStorageClientTest : public testing::Test {
protected:
    fs::path localState() const { return package_.localState(storagePackage); }
    void start(bool scripted = false) {
        install(services_.path(), scripted);
        bus_.emplace(services_.path());
    }
    Storage connect() {
        std::optional<Storage> storage = library().local();
        if (!storage) throw std::runtime_error("slot 4 handed out no client");
        return std::move(*storage);
    }
    pid_t host() const { return bus_->ownerOf(storagePackage).value_or(-1); }
    void killHost() {
        const pid_t running = host();
        ASSERT_GT(running, 0);
        ::kill(running, SIGKILL);
        ASSERT_TRUE(PrivateBus::exitStatusOf(running).has_value());
    }
    // What the scripted service received: one line per request.
    std::vector<std::string> requests() const {
        std::ifstream log(localState() / "requests.log");
        std::vector<std::string> lines;
        for (std::string line; std::getline(log, line);) lines.push_back(line);
        return lines;
    }

    Testing::PackageFolder package_;
    Testing::TemporaryFolder services_;
    std::optional<PrivateBus> bus_;
};

TEST_F(LocalStorageClientTest, EveryOperationReachesTheFilesOfTheService) {
    start();
    Storage storage = connect();
    EXPECT_TRUE(storage.exists());

    storage.write("g", "k", "a\nb");
    EXPECT_EQ(contentOf(localState() / "g" / "k"), "a\r\nb");
    EXPECT_EQ(storage.read("g", "k"), "a\nb");
    storage.write("g", ".default", "k");
    EXPECT_EQ(storage.read("g", "default"), "a\nb");

    // Text travels as UTF-16: a value ends at its first zero byte.
    storage.write("g", "zero", std::string("ab\0cd", 5));
    EXPECT_EQ(storage.read("g", "zero"), "ab");
    storage.write("g", "empty", "");
    EXPECT_EQ(storage.read("g", "empty"), "");

    const std::string large(1 << 20, 'x');
    storage.write("g", "large", large);
    EXPECT_EQ(storage.read("g", "large"), large);

    std::vector<std::string> keys;
    for (std::string key = storage.next("g", ""); !key.empty(); key = storage.next("g", key)) {
        keys.push_back(key);
    }
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(keys, (std::vector<std::string>{".default", "empty", "k", "large", "zero"}));

    storage.remove("g", "k");
    EXPECT_FALSE(fs::exists(localState() / "g" / "k"));
    EXPECT_NE(failureOf([&] { storage.read("g", "k"); })
                  .find("message: Read file error: file " + (localState() / "g" / "k").string() +
                        " is not exist"),
              std::string::npos);
}

TEST_F(LocalStorageClientTest, ARejectedRequestIsSentTwiceOnTwoConnectionsThenFails) {
    start(true);
    Storage storage = connect();
    const std::string report = failureOf([&] { storage.read("g", "reject"); });
    EXPECT_NE(report.find("function: Quorvendale::StorageClient::UwpLocalStorageClient::executeCommand"),
              std::string::npos);
    EXPECT_NE(report.find("message: rejected by the scripted service"), std::string::npos);
    EXPECT_EQ(requests(), (std::vector<std::string>{"1 read reject", "2 read reject"}));

    // Data is sent as an empty string, not left out.
    storage.write("g", "written", "");
    EXPECT_EQ(requests().back(), "2 write written");
}

TEST_F(LocalStorageClientTest, RepliesAreCheckedToTheLetter) {
    start(true);
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

TEST_F(LocalStorageClientTest, AKilledHostIsReplacedBeforeTheNextOperation) {
    start();
    Storage storage = connect();
    storage.write("g", "k", "before");
    const pid_t first = host();
    killHost();
    EXPECT_EQ(storage.read("g", "k"), "before");
    EXPECT_NE(host(), first);
}

TEST_F(LocalStorageClientTest, WithTheServiceGoneOperationsFailAndExistsSaysNoOnce) {
    start();
    Storage storage = connect();
    fs::remove(services_.path() / (std::string(storagePackage) + ".service"));
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
    install(services_.path());
    bus_->reloadServices();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(storage.exists());
    testing::internal::GetCapturedStdout();
    storage.write("g", "k", "back");
    EXPECT_TRUE(storage.exists());
}

// Eight threads with a client each and a second process, on their own keys
// against one host, all at once: every value comes back as written.
TEST_F(LocalStorageClientTest, ClientsOnManyThreadsAndProcessesLoseAndCrossNothing) {
    start();
    const Storage first = connect();  // the host they all share is running
    const pid_t served = host();
    constexpr int threads = 8;
    constexpr int entries = 100;  // a write and a read each
    Testing::ChildProcess other({QV_LOCAL_CLIENT_WORKER, QV_STORAGE_LIBRARY, "process",
                                 std::to_string(entries)});
    std::vector<std::string> failures(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            try {
                Storage storage = connect();
                const std::string group = "thread" + std::to_string(t);
                for (int i = 0; i < entries; ++i) {
                    const std::string key = std::to_string(i);
                    storage.write(group, key, group + "/" + key);
                    if (storage.read(group, key) != group + "/" + key) {
                        failures[t] = "entry " + key + " came back changed";
                        return;
                    }
                }
            } catch (const std::exception& error) {
                failures[t] = error.what();
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    for (const std::string& failure : failures) EXPECT_EQ(failure, "");
    const auto status = other.wait();
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    EXPECT_EQ(host(), served);
    for (int t = 0; t < threads; ++t) {
        const std::string group = "thread" + std::to_string(t);
        EXPECT_EQ(contentOf(localState() / group / std::to_string(entries - 1)),
                  group + "/" + std::to_string(entries - 1));
    }
}

}  // namespace
}  // namespace Quorvendale
