#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "InterfaceContract/OutSlot.h"
#include "Networking/Socket.h"
#include "StorageClient/Library.h"
#include "StorageClient/RemoteStorageClient.h"
#include "Support/ArrayOut.h"
#include "Support/LoopbackServer.h"

namespace Quorvendale::StorageClient {
namespace {

using namespace std::string_literals;
using Testing::frame;
using Testing::LoopbackServer;
using Testing::responseBody;

const std::string existsFrame = "\x05\0\0\0\0\0\0\0\x00\x04\x00\x00\x00"s;

RemoteResponse exchange(const LoopbackServer& server, const RemoteRequest& request) {
    Networking::Socket socket(Networking::InterNetwork, Networking::socketTypeStream,
                              Networking::protocolTcp);
    if (!socket.connect(Networking::IPAddress(Testing::loopback), server.port(), 3000)) {
        throw std::logic_error("loopback server unreachable");
    }
    return RemoteStorageClient::sendMessage(socket, request);
}

std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(no failure)";
}

void expectReport(const std::string& text, const std::string& function,
                  const std::string& message) {
    const std::string head =
        "Exception:\n\tfile: src/StorageClient/RemoteStorageClient.cpp\n"
        "\tfunction: Quorvendale::StorageClient::RemoteStorageClient::" +
        function + "\n\tline: ";
    EXPECT_TRUE(text.starts_with(head)) << text;
    EXPECT_TRUE(text.ends_with("\n\tmessage: " + message)) << text;
}

// The operations over a connection the test makes itself, since no host text
// parses; everything after the connect is the client's own.
class LoopbackStorageClient final : public RemoteStorageClient {
public:
    explicit LoopbackStorageClient(const LoopbackServer& server)
        : RemoteStorageClient("127.0.0.1", server.port()), server_(server) {}

protected:
    RemoteResponse sendMessage(const RemoteRequest& request) override {
        return exchange(server_, request);
    }

private:
    const LoopbackServer& server_;
};

TEST(RemoteExchangeTest, RequestsGoOutAsExactFrames) {
    const LoopbackServer::Answer success{frame(responseBody(1, "done"))};
    LoopbackServer server({success, success});
    const RemoteResponse response = exchange(server, {RemoteCommand::Exists, "", "", ""});
    EXPECT_EQ(response.status, 1);
    EXPECT_EQ(response.payload, "done");
    exchange(server, {RemoteCommand::Write, "g", "k", ""});
    EXPECT_EQ(server.received(),
              (std::vector{existsFrame, "\x07\0\0\0\0\0\0\0\x00\x01\x01g\x01k\x00"s}));
}

// Closing before answering, inside the length, halfway through the body; a
// length far beyond what is sent; no answer at all, past the time-out.
TEST(RemoteExchangeTest, ServerFaultsGiveTheFailedStepsReport) {
    const std::string body = responseBody(1, "payload");
    for (const LoopbackServer::Answer& answer : {LoopbackServer::Answer{""},
                                                 {"\x09\0\0\0"s},
                                                 {frame(body).substr(0, 12)},
                                                 {frame(body, std::uint64_t{1} << 40)},
                                                 {.bytes = "", .holdOpen = true}}) {
        LoopbackServer server({answer});
        expectReport(failureOf([&] {
                         exchange(server, {RemoteCommand::Exists, "", "", ""});
                     }),
                     "sendMessage", "Failed to get response");
    }
}

TEST(RemoteExchangeTest, ResponsesTheDecoderCannotUseAreRefused) {
    LoopbackServer server({{frame(responseBody(1, "", 1))}, {frame("", ~std::uint64_t{0})}});
    const RemoteRequest exists{RemoteCommand::Exists, "", "", ""};
    EXPECT_EQ(failureOf([&] { exchange(server, exists); }), "need VersionConverter implementation");
    EXPECT_EQ(failureOf([&] { exchange(server, exists); }), "vector too long");
}

TEST(RemoteStorageClientTest, ReadProbesExistenceOnItsOwnConnectionFirst) {
    LoopbackServer server({{frame(responseBody(1, ""))}, {frame(responseBody(1, "value"))}});
    LoopbackStorageClient client(server);
    EXPECT_EQ(client.read("g", "k"), "value");
    EXPECT_EQ(server.received(),
              (std::vector{existsFrame, "\x07\0\0\0\0\0\0\0\x00\x00\x01g\x01k\x00"s}));
}

TEST(RemoteStorageClientTest, ReadOfAStoreThatIsNotServingSendsNoReadRequest) {
    LoopbackServer server({{frame(responseBody(0, "down"))}, {frame(responseBody(1, "value"))}});
    LoopbackStorageClient client(server);
    EXPECT_EQ(client.read("g", "k"), "");
    EXPECT_EQ(server.received(), std::vector{existsFrame});
}

TEST(RemoteStorageClientTest, FailedStatusIsAReportWithTheServersTextButExistsIsFalse) {
    const LoopbackServer::Answer failed{frame(responseBody(0, "disk full"))};
    LoopbackServer server({failed, failed, failed, {frame(responseBody(1, ""))}, failed, failed});
    LoopbackStorageClient client(server);
    expectReport(failureOf([&] { client.write("g", "k", "v"); }), "write", "disk full");
    expectReport(failureOf([&] { client.remove("g", "k"); }), "remove", "disk full");
    expectReport(failureOf([&] { client.next("g", "k"); }), "next", "disk full");
    expectReport(failureOf([&] { client.read("g", "k"); }), "read", "disk full");
    EXPECT_FALSE(client.exists());
}

// Through ILibrary and IStorage as a program sees them.
IStorage* createThroughLibrary(const std::string& address, std::uint32_t port) {
    ILibrary* library = nullptr;
    InterfaceContract::handOut(*new Library, IID_ILibrary, &library);
    IStorage* storage = nullptr;
    EXPECT_EQ(
        library->table->createRemoteStorageClient(
            library, address.data(), static_cast<std::uint32_t>(address.size()), port, &storage),
        QV_S_OK);
    library->table->release(library);
    return storage;
}

TEST(RemoteClientThroughLibraryTest, EveryOperationFailsWithTheHostnameTextAndSendsNothing) {
    LoopbackServer server({{frame(responseBody(1, ""))}});
    IStorage* storage = createThroughLibrary("127.0.0.1", server.port());
    const auto* table = storage->table;
    Testing::ArrayOut out;
    std::uint32_t word = 7;
    for (const ResultCode result :
         {table->read(storage, "g", 1, "k", 1, &out, &Testing::ArrayOut::allocate),
          table->write(storage, "g", 1, "k", 1, "v", 1), table->remove(storage, "g", 1, "k", 1),
          table->next(storage, "g", 1, "k", 1, &out, &Testing::ArrayOut::allocate),
          table->exists(storage, &word)}) {
        EXPECT_EQ(result, QV_E_FAIL);
    }
    EXPECT_EQ(Testing::messageOf(storage),
              "hostname is invalid or requires DNS lookup, which is not supported yet");
    EXPECT_EQ(out.calls, 0);
    EXPECT_EQ(word, 7u);
    EXPECT_TRUE(server.received().empty());
    EXPECT_EQ(table->release(storage), 0u);
}

// The client answers IStorage with its own table, after the base's, on the
// object's one count.
TEST(RemoteClientThroughLibraryTest, EmptyAddressGivesTheClientsOwnTableWithOneCount) {
    IStorage* storage = createThroughLibrary("", 0);
    ASSERT_NE(storage, nullptr);
    using OwnRemap = InterfaceContract::Details::InterfaceRemap<IStorage, RemoteStorageClient,
                                                                RemoteStorageClient>;
    EXPECT_EQ(storage->table, &OwnRemap::table);
    void* queried = nullptr;
    ASSERT_EQ(storage->table->queryInterface(storage, &IID_IStorage, &queried), QV_S_OK);
    EXPECT_EQ(queried, storage);
    EXPECT_EQ(storage->table->release(storage), 1u);
    EXPECT_EQ(storage->table->release(storage), 0u);
}

}  // namespace
}  // namespace Quorvendale::StorageClient
