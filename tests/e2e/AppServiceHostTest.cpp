// The storage service in the real host that a private bus starts, reached
// through AppServiceConnection as any client reaches it.
#include <gtest/gtest.h>
#include <linux/landlock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstring>
#include <set>
#include <filesystem>
#include <fstream>
#include <latch>
#include <thread>

#include "ServiceIdentity.h"
#include "Platform/Foundation/PropertyValue.h"
#include "Support/StorageServiceBus.h"
#include "Support/RawAppServiceClient.h"
#include "Support/StorageMessages.h"
#include "Support/ChildProcess.h"
#include "Support/TemporaryFolder.h"
#include "Support/Waiting.h"

namespace Quorvendale::Platform {
namespace {

namespace fs = std::filesystem;
using Testing::await;
using Testing::contentOf;
using Testing::eventually;
using Testing::PrivateBus;
using Testing::Reply;
using Testing::request;
using Testing::success;
using Status = AppServiceConnectionStatus;

using Testing::storagePackage;
constexpr const char* storageAppService = Quorvendale::ServiceIdentity::appServiceName.data();

std::pair<AppServiceConnection, Status> open(const std::string& package = storagePackage,
                                             const std::string& appService = storageAppService) {
    AppServiceConnection connection;
    connection.PackageFamilyName(hstring(utf8ToUtf16(package)));
    connection.AppServiceName(hstring(utf8ToUtf16(appService)));
    const Status status = await(connection.OpenAsync());
    return {connection, status};
}

Status openStatus(const std::string& package, const std::string& appService = storageAppService) {
    return open(package, appService).second;
}

AppServiceConnection openStorage() {
    auto [connection, status] = open();
    EXPECT_EQ(status, Status::Success);
    return connection;
}

Reply ask(const AppServiceConnection& connection, const ValueSet& message) {
    return Testing::replyOf(await(connection.SendMessageAsync(message)));
}

// One storage command; "data" is sent only when given.
Reply ask(const AppServiceConnection& connection, const std::string& command,
          const std::string& group, const std::string& key, std::optional<std::string> data = {}) {
    ValueSet message = request({{u"command", command}, {u"group", group}, {u"key", key}});
    if (data) message.Insert(u"data", PropertyValue::CreateString(hstring(utf8ToUtf16(*data))));
    return ask(connection, message);
}

// Not on an old kernel, nor under qemu-aarch64 7.2, which knows no Landlock
// calls: there the host says that it runs unconfined.
bool landlockAvailable() {
    return ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) >= 1;
}

bool exitedWith(std::optional<int> status, int code) {
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == code;
}

class AppServiceHostTest : public testing::Test, protected Testing::StorageServiceBus {};

// The store's own rules are StorageTest's, and every command from a client
// is qvstore's session tests'; here, requests no client sends.
TEST_F(AppServiceHostTest, ServesEveryCommandFromAHostItStarted) {
    startBus();
    const AppServiceConnection connection = openStorage();
    EXPECT_NE(host(), ::getpid());
    EXPECT_EQ(ask(connection, ValueSet()), success);
    EXPECT_EQ(ask(connection, "READ", "g", "k"), Reply("failed", "Unknown command"));
    EXPECT_EQ(ask(connection, request({{u"command", "read"}, {u"group", "g"}})),
              Testing::unknownException);
    ValueSet numericGroup = request({{u"command", "read"}, {u"key", "k"}});
    numericGroup.Insert(u"group", PropertyValue::CreateInt64(1));
    EXPECT_EQ(ask(connection, numericGroup), Testing::unknownException);
    // "data" is looked up before the store is touched: nothing appears on disk.
    EXPECT_EQ(ask(connection, "write", "fresh", "k"), Testing::unknownException);
    EXPECT_FALSE(fs::exists(localState() / "fresh"));
    // Every failure had a client to hear of it: the host said nothing else.
    std::string log = bus_->log();
    if (!landlockAvailable()) log.erase(log.find("quorvendale-apphost: this kernel has no Landlock"), 1);
    if (const auto at = log.find("host: cannot hide"); at != log.npos) log.erase(at, 1);
    if (const auto at = log.find("host: started: "); at != log.npos) log.erase(at, 1);
    EXPECT_EQ(log.find("quorvendale-apphost"), std::string::npos) << bus_->log();
}

TEST_F(AppServiceHostTest, EveryWayAnOpenFailsIsAStatusInBoundedTime) {
    const fs::path folder = services_.path();
    install();
    Testing::writeServiceFile(folder, "Missing.Program_1", "/nonexistent/program");
    Testing::writeServiceFile(folder, "Exits.AtOnce_1", "/bin/true");
    Testing::writeServiceFile(folder, "Never.TakesItsName_1", "/bin/sleep 60");
    bus_.emplace(folder, PrivateBus::Options{.serviceStartTimeout = std::chrono::seconds(1)});

    EXPECT_EQ(openStatus("Not.Installed_1"), Status::AppNotInstalled);
    EXPECT_EQ(openStatus("not a bus name"), Status::AppNotInstalled);
    EXPECT_EQ(openStatus("Missing.Program_1"), Status::AppUnavailable);
    EXPECT_EQ(openStatus("Exits.AtOnce_1"), Status::AppUnavailable);
    EXPECT_EQ(openStatus("Never.TakesItsName_1"), Status::AppUnavailable);
    EXPECT_EQ(openStatus(storagePackage, "com.quorvendale.other.appservice"),
              Status::AppServiceUnavailable);
    EXPECT_EQ(openStatus(storagePackage, ""), Status::AppServiceUnavailable);
    EXPECT_EQ(openStatus(storagePackage, std::string(1 << 20, 'x')), Status::AppServiceUnavailable);
    // The host that refused those still serves.
    EXPECT_EQ(ask(openStorage(), ValueSet()), success);

    const AppServiceConnection open = openStorage();
    EXPECT_THROW(await(open.OpenAsync()), HResultError);

    {  // a bus address that leads nowhere is qvstore's tests'
        Testing::ScopedEnvironment noAddress("DBUS_SESSION_BUS_ADDRESS", nullptr);
        Testing::ScopedEnvironment noRuntimeFolder("XDG_RUNTIME_DIR", nullptr);
        EXPECT_EQ(openStatus(storagePackage), Status::AppUnavailable);
    }

    // A bus that cannot carry the socket refuses at once, not after the time-out.
    const PrivateBus overTcp(folder, PrivateBus::Options{.overTcp = true});
    EXPECT_EQ(openStatus(storagePackage), Status::Unknown);
}

// A host stopped with a request pending, then killed or told to end: nothing
// is left waiting, every connection hears of the end, and the next Open
// starts a new host.
TEST_F(AppServiceHostTest, AHostEndedMidRequestLeavesNothingWaiting) {
    startBus();
    for (const int signal : {SIGKILL, SIGTERM}) {
        const AppServiceConnection connections[] = {openStorage(), openStorage()};
        std::atomic<int> closed{0};
        for (const auto& connection : connections)
            connection.ServiceClosed([&](auto&, auto&) { ++closed; });
        const pid_t first = host();
        ::kill(first, SIGSTOP);
        const auto pending = connections[0].SendMessageAsync(ValueSet());
        ::kill(first, signal);
        ::kill(first, SIGCONT);
        const AppServiceResponseStatus answer = await(pending).Status();
        const auto status = PrivateBus::exitStatusOf(first);
        if (signal == SIGKILL) {
            EXPECT_EQ(answer, AppServiceResponseStatus::Failure);
            EXPECT_TRUE(status && WIFSIGNALED(*status));
        } else {
            EXPECT_TRUE(exitedWith(status, 0)) << bus_->log();
        }
        EXPECT_TRUE(eventually([&] { return closed == 2; }));
        EXPECT_EQ(await(connections[1].SendMessageAsync(ValueSet())).Status(),
                  AppServiceResponseStatus::Failure);
        const AppServiceConnection again = openStorage();
        EXPECT_NE(host(), first);
        EXPECT_EQ(ask(again, "write", "g", "k", "v"), success);
    }
}

// An idle host leaves, the next open starts another, and SIGTERM stops that
// one: each start and each end is one line in the host's log.
TEST_F(AppServiceHostTest, AnIdleHostLeavesTheNextOpenStartsAnotherAndEachSaysSo) {
    startBus(" --idle-exit 1");
    pid_t first = -1;
    {
        const AppServiceConnection connection = openStorage();
        first = host();
        EXPECT_EQ(ask(connection, "write", "g", "k", "kept"), success);
    }  // the last copy goes, and the connection with it
    EXPECT_TRUE(exitedWith(PrivateBus::exitStatusOf(first), 0)) << bus_->log();
    EXPECT_FALSE(bus_->ownerOf(storagePackage).has_value());

    const AppServiceConnection connection = openStorage();
    const pid_t second = host();
    EXPECT_NE(second, first);
    EXPECT_EQ(ask(connection, "read", "g", "k"), Reply("success", "kept"));
    ASSERT_EQ(::kill(second, SIGTERM), 0);
    ASSERT_TRUE(exitedWith(PrivateBus::exitStatusOf(second), 0)) << bus_->log();

    const std::string log = bus_->log();
    for (const pid_t pid : {first, second}) {
        const std::string started = "quorvendale-apphost: started: version " QV_VERSION ", pid " +
                                    std::to_string(pid) + ", data folder " +
                                    localState().string() + ", confinement: ";
        EXPECT_NE(log.find(started), log.npos) << log;
    }
    EXPECT_NE(log.find("quorvendale-apphost: exiting: no connection for 1 s\n"), log.npos) << log;
    EXPECT_NE(log.find("quorvendale-apphost: stopping on SIGTERM: ending 1 connections\n"),
              log.npos)
        << log;
}

// The host's counters as an administrator reads them, `qvstore status --json`
// from the properties of the host's object, and one counter of that text.
std::string hostStatus() {
    const Testing::TemporaryFolder folder;
    return Testing::runProgram({QVSTORE_PATH, "status", "--json"}, folder.path()).output;
}
std::uint64_t counter(const std::string& status, const std::string& name) {
    const std::size_t at = status.find("\"" + name + "\":");
    return at == std::string::npos ? ~std::uint64_t{0} : std::stoull(status.substr(at + name.size() + 3));
}

// Many clients at once, each on its own connection: every request is
// counted once, every failure once, and the peak is every connection open
// together.
TEST_F(AppServiceHostTest, CountersAreExactUnderManyConcurrentClients) {
    constexpr int clients = 24;
    constexpr int rounds = 20;
    startBus();
    std::latch allOpen(clients);
    std::vector<std::thread> threads;
    for (int client = 0; client < clients; ++client) {
        threads.emplace_back([&, client] {
            const AppServiceConnection connection = openStorage();
            allOpen.arrive_and_wait();
            const std::string group = "g" + std::to_string(client);
            for (int round = 0; round < rounds; ++round) {
                const std::string key = "k" + std::to_string(round);
                EXPECT_EQ(ask(connection, "write", group, key, "value"), success);
                EXPECT_EQ(ask(connection, "read", group, key), Reply("success", "value"));
            }
            EXPECT_EQ(ask(connection, "read", group, "missing").first, "failed");
            EXPECT_EQ(ask(connection, ValueSet()), success);
        });
    }
    for (std::thread& thread : threads) thread.join();

    const std::string status = hostStatus();
    EXPECT_NE(status.find("\"Requests\":{\"exists\":24,\"read\":504,\"write\":480},\"RequestsFailed\":24,"),
              std::string::npos)
        << status;
    EXPECT_EQ(counter(status, "ConnectionsPeak"), std::uint64_t{clients});
    EXPECT_EQ(counter(status, "ConnectionsRefused") + counter(status, "PeersCutOff"), 0u);
    EXPECT_EQ(counter(status, "ProcessId"), static_cast<std::uint64_t>(host()));
    // Each value went in once and came out once, inside frames.
    EXPECT_GT(counter(status, "BytesReceived"), std::uint64_t{clients * rounds * 2 * 5});
    EXPECT_GT(counter(status, "BytesSent"), std::uint64_t{clients * rounds * 2 * 5});
    EXPECT_EQ(counter(status, "FrameMemoryCeiling"), std::uint64_t{448} << 20);
    EXPECT_TRUE(eventually([&] { return counter(hostStatus(), "Connections") == 0; }));
}

// Where standard error is the journal, a line begins with its priority, which
// the journal keeps as the entry's; on any other stream, with the program.
TEST(HostLogTest, ALineCarriesItsPriorityOnlyWhereStandardErrorIsTheJournal) {
    const Testing::TemporaryFolder folder;
    const std::string log = (folder.path() / "log").string();
    const std::string run = "exec 2>" + log + "; " + QV_APPHOST + " --bogus x";
    const std::string journal = "touch " + log + "; JOURNAL_STREAM=$(stat -c %d:%i " + log +
                                ") sh -c '" + run + "'";
    EXPECT_EQ(WEXITSTATUS(std::system(journal.c_str())), 2);
    EXPECT_EQ(contentOf(log), "<3>unknown option --bogus (see --help)\n");
    const std::string other = "JOURNAL_STREAM=1:1 sh -c '" + run + "'";
    EXPECT_EQ(WEXITSTATUS(std::system(other.c_str())), 2);
    EXPECT_EQ(contentOf(log), "quorvendale-apphost: unknown option --bogus (see --help)\n");
}

TEST_F(AppServiceHostTest, AWriteOverTheHostsFileSizeLimitFailsAndTheHostServesOn) {
    startBus();
    const AppServiceConnection connection = openStorage();
    const rlimit small{4096, 4096};
    ASSERT_EQ(::prlimit(host(), RLIMIT_FSIZE, &small, nullptr), 0);
    EXPECT_EQ(ask(connection, "write", "g", "big", std::string(8192, 'x')),
              Reply("failed", "Write file error"));
    EXPECT_EQ(ask(connection, "write", "g", "small", "fits"), success);
    EXPECT_EQ(ask(connection, "read", "g", "small"), Reply("success", "fits"));
    // An overwrite over the limit fails before it cuts the old value.
    EXPECT_EQ(ask(connection, "write", "g", "small", std::string(8192, 'x')),
              Reply("failed", "Write file error"));
    EXPECT_EQ(ask(connection, "read", "g", "small"), Reply("success", "fits"));
}

// The data home on a small tmpfs of this process's own mount namespace,
// which the bus and the host it starts inherit and which ends with them.
TEST_F(AppServiceHostTest, OnAFullFileSystemAnOverwriteFailsAndTheOldValueStays) {
    const fs::path packages = package_.base() / "Packages";
    fs::create_directories(packages);
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", packages.c_str(), "tmpfs", 0, "size=2m") != 0) {
        GTEST_SKIP() << "no tmpfs of its own here: " << std::strerror(errno);
    }
    startBus();
    const AppServiceConnection connection = openStorage();
    ASSERT_EQ(ask(connection, "write", "g", "k", "old value"), success);
    {
        // Another writer of the disk fills it, then leaves 64 KiB.
        std::ofstream filler(localState() / "filler", std::ios::binary);
        const std::string block(4096, 'f');
        for (int i = 0; i < 1024 && filler.write(block.data(), block.size()); ++i) filler.flush();
    }
    fs::resize_file(localState() / "filler", fs::file_size(localState() / "filler") - (64 << 10));
    EXPECT_EQ(ask(connection, "write", "g", "k", std::string(1 << 20, 'n')),
              Reply("failed", "Write file error"));
    EXPECT_EQ(ask(connection, "read", "g", "k"), Reply("success", "old value"));
    // A value that fits, line ends doubled on disk included, replaces it.
    const std::string fits = std::string(16 << 10, '\n');
    EXPECT_EQ(ask(connection, "write", "g", "k", fits), success);
    EXPECT_EQ(ask(connection, "read", "g", "k"), Reply("success", fits));
    EXPECT_EQ(ask(connection, "write", "g", "k", std::string(40 << 10, '\n')),
              Reply("failed", "Write file error"));
    EXPECT_EQ(ask(connection, "read", "g", "k"), Reply("success", fits));
}

// A peer that sends its requests and then ends its stream still wants their
// answers: each is served, a write is applied, and then the host hangs up.
TEST_F(AppServiceHostTest, AHalfClosedPeerIsAnsweredEveryRequestItSent) {
    startBus();
    const AppServiceConnection connection = openStorage();
    ASSERT_EQ(ask(connection, "write", "g", "a", std::string(256 << 10, 'a')), success);
    const Testing::RawAppServiceClient peer(bus_->address(), storagePackage, storageAppService);
    const auto command = [](const std::string& name, const std::string& key) {
        return request({{u"command", name}, {u"group", "g"}, {u"key", key}});
    };
    for (std::uint64_t id = 1; id <= 4; ++id) ASSERT_TRUE(peer.sendRequest(id, command("read", "a")));
    ValueSet write = command("write", "b");
    write.Insert(u"data", PropertyValue::CreateString(hstring(u"half-closed")));
    ASSERT_TRUE(peer.sendRequest(5, write));
    ASSERT_TRUE(peer.sendRequest(6, command("next", "a")));
    ASSERT_EQ(::shutdown(peer.socket(), SHUT_WR), 0);
    std::set<std::uint64_t> answered;
    while (const auto frame = peer.receive(Testing::patience)) {
        EXPECT_EQ(frame->kind, AppServiceFrame::Kind::Response);
        const Reply reply = Testing::replyOf({AppServiceResponseStatus::Success, frame->message});
        EXPECT_EQ(reply.first, "success") << frame->requestId;
        answered.insert(frame->requestId);
    }
    EXPECT_EQ(answered, (std::set<std::uint64_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_TRUE(peer.hungUpWithin(std::chrono::seconds(0)));
    EXPECT_EQ(ask(connection, "read", "g", "b"), Reply("success", "half-closed"));
}

TEST_F(AppServiceHostTest, GroupsAndKeysThatClimbOutOfLocalStateTouchNothingThere) {
    if (!landlockAvailable())
        GTEST_SKIP() << "no Landlock here (kernel or emulator): the host runs unconfined";
    startBus();
    const AppServiceConnection connection = openStorage();
    const std::string log = bus_->log();
    if (const auto at = log.find("host: cannot hide"); at != log.npos)
        GTEST_SKIP() << log.substr(at, log.find('\n', at) - at);
    const fs::path beside = localState().parent_path() / "beside";
    const fs::path outside = package_.base() / "outside";
    for (const fs::path& planted : {beside, outside}) std::ofstream(planted) << "planted";

    for (const auto& [group, key] : {std::pair{"..", "beside"},
                                     {"g", "../../beside"},
                                     {"../../..", "outside"},
                                     {"../../../made", "k"}}) {
        EXPECT_EQ(ask(connection, "write", group, key, "changed"),
                  Reply("failed", "Write file error"));
    }
    // Nothing outside is there to see, whether or not it exists.
    EXPECT_EQ(ask(connection, "remove", "..", "beside"), success);
    for (const std::string key : {"outside", "missing"}) {
        EXPECT_EQ(ask(connection, "read", "../../..", key),
                  Reply("failed", "Read file error: file " + localState().string() + "/../../../" +
                                      key + " is not exist"));
    }

    for (const fs::path& planted : {beside, outside}) EXPECT_EQ(contentOf(planted), "planted");
    EXPECT_FALSE(fs::exists(package_.base() / "made"));
    EXPECT_EQ(ask(connection, "write", "g", "k", "inside"), success);
    EXPECT_EQ(ask(connection, "write", "g/..", "k", "inside too"), success);
}

}  // namespace
}  // namespace Quorvendale::Platform
