// The remote client against a real server on 127.0.0.1, called directly and
// through IStorage as a program holds it: the frames on the wire, the
// marshalling of the table, and every way the exchange fails.
#include <gtest/gtest.h>

#include <functional>

#include "InterfaceContract/OutSlot.h"
#include "Networking/Socket.h"
#include "StorageClient/RemoteStorageClient.h"
#include "Support/ArrayOut.h"
#include "Support/LoopbackServer.h"

namespace Quorvendale::StorageClient {
namespace {

using namespace std::string_literals;
using Testing::ArrayOut;
using Testing::frame;
using Testing::LoopbackServer;
using Testing::responseBody;
using Answer = LoopbackServer::Answer;

const std::string existsFrame = "\x05\0\0\0\0\0\0\0\x00\x04\x00\x00\x00"s;
const RemoteRequest exists{RemoteCommand::Exists, "", "", ""};

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
    EXPECT_TRUE(
        text.starts_with("Exception:\n\tfile: src/StorageClient/RemoteStorageClient.cpp\n"
                         "\tfunction: Quorvendale::StorageClient::RemoteStorageClient::" +
                         function + "\n\tline: "))
        << text;
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

// The client as a program holds it: IStorage, one reference.
struct HandedOut {
    explicit HandedOut(const LoopbackServer& server) {
        InterfaceContract::handOut(*new LoopbackStorageClient(server), IID_IStorage, &storage);
    }
    ~HandedOut() { EXPECT_EQ(storage->table->release(storage), 0u); }
    ResultCode read(const char* group, const char* key, ArrayOut& out) const {
        return storage->table->read(storage, group, 1, key, 1, &out, &ArrayOut::allocate);
    }
    IStorage* storage = nullptr;
};

// Binary bytes travel whole both ways; a key of 200 bytes has a two-byte
// length. A read probes existence on its own connection first; an empty
// result still calls the callback once, and a null buffer from it is tolerated.
TEST(RemoteStorageClientTest, TheTableCarriesBytesWholeOntoTheWire) {
    const std::string data = "a\0b\0\xff"s, key = "\0"s + std::string(199, 'k');
    const Answer empty{frame(responseBody(1, ""))};
    LoopbackServer server({empty,
                           empty,
                           {frame(responseBody(1, data))},
                           empty,
                           empty,
                           {frame(responseBody(1, "x"))},
                           empty});
    const HandedOut client(server);
    const auto* table = client.storage->table;
    ASSERT_EQ(table->write(client.storage, "g\0h", 3, key.data(), 200, data.data(), 5), QV_S_OK);
    ArrayOut out;
    ASSERT_EQ(client.read("g", "k", out), QV_S_OK);
    EXPECT_EQ(out.calls, 1);
    EXPECT_EQ(out.bytes, data);
    ArrayOut last;
    ASSERT_EQ(table->next(client.storage, "g", 1, "k", 1, &last, &ArrayOut::allocate), QV_S_OK);
    EXPECT_EQ(last.calls, 1);
    EXPECT_EQ(last.bytes, "");
    ArrayOut discarded;
    discarded.answerNull = true;
    EXPECT_EQ(client.read("g", "k", discarded), QV_S_OK);
    EXPECT_EQ(discarded.calls, 1);
    std::uint32_t word = 0;
    ASSERT_EQ(table->exists(client.storage, &word), QV_S_OK);
    EXPECT_EQ(word, 0xFFFFFFFFu);
    EXPECT_EQ(server.received(),
              (std::vector{"\xD6\0\0\0\0\0\0\0\x00\x01\x03g\0h\xC8\x01"s + key + "\x05"s + data,
                           existsFrame, "\x07\0\0\0\0\0\0\0\x00\x00\x01g\x01k\x00"s,
                           "\x07\0\0\0\0\0\0\0\x00\x03\x01g\x01k\x00"s, existsFrame,
                           "\x07\0\0\0\0\0\0\0\x00\x00\x01g\x01k\x00"s, existsFrame}));
}

// A failure reaches the caller as E_FAIL with the text, and no output is
// written; caller errors are refused before anything is sent.
TEST(RemoteStorageClientTest, FailuresLeaveOutputsUntouchedAndKeepTheText) {
    LoopbackServer server(
        {{frame(responseBody(1, ""))}, {frame(responseBody(0, "disk full"))}, {""}});
    const HandedOut client(server);
    ArrayOut out;
    EXPECT_EQ(client.read("g", "k", out), QV_E_FAIL);
    EXPECT_EQ(out.calls, 0);
    expectReport(Testing::messageOf(client.storage), "read", "disk full");
    std::uint32_t word = 0x12345678;
    EXPECT_EQ(client.storage->table->exists(client.storage, &word), QV_E_FAIL);
    EXPECT_EQ(word, 0x12345678u);

    const auto* table = client.storage->table;
    const std::size_t sent = server.received().size();
    EXPECT_EQ(table->write(client.storage, nullptr, 3, "k", 1, "d", 1), QV_E_INVALIDARG);
    EXPECT_EQ(table->read(client.storage, "g", 1, "k", 1, nullptr, nullptr), QV_E_INVALIDARG);
    EXPECT_EQ(table->exists(client.storage, nullptr), QV_E_INVALIDARG);
    EXPECT_EQ(server.received().size(), sent);
}

// Closing before answering, inside the length, halfway through the body; a
// length far beyond what is sent; no answer at all, past the time-out.
TEST(RemoteStorageClientTest, ServerFaultsGiveTheFailedStepsReport) {
    const std::string body = responseBody(1, "payload");
    for (const Answer& answer :
         {Answer{""}, Answer{"\x09\0\0\0"s}, Answer{frame(body).substr(0, 12)},
          Answer{frame(body, std::uint64_t{1} << 40)}, Answer{.bytes = "", .holdOpen = true}}) {
        LoopbackServer server({answer});
        expectReport(failureOf([&] { exchange(server, exists); }), "sendMessage",
                     "Failed to get response");
    }
    LoopbackServer server({{frame(responseBody(1, "", 1))}, {frame("", ~std::uint64_t{0})}});
    EXPECT_EQ(failureOf([&] { exchange(server, exists); }), "need VersionConverter implementation");
    EXPECT_EQ(failureOf([&] { exchange(server, exists); }), "vector too long");
}

TEST(RemoteStorageClientTest, AFailedStatusIsAReportWithTheServersTextButExistsIsFalse) {
    const Answer failed{frame(responseBody(0, "disk full"))};
    LoopbackServer server({failed, failed, failed, failed, failed});
    LoopbackStorageClient client(server);
    expectReport(failureOf([&] { client.write("g", "k", "v"); }), "write", "disk full");
    expectReport(failureOf([&] { client.remove("g", "k"); }), "remove", "disk full");
    expectReport(failureOf([&] { client.next("g", "k"); }), "next", "disk full");
    EXPECT_FALSE(client.exists());
    // A store that is not serving gets no read request.
    EXPECT_EQ(client.read("g", "k"), "");
    EXPECT_EQ(server.received().size(), 5u);
    EXPECT_EQ(server.received().back(), existsFrame);
}

}  // namespace
}  // namespace Quorvendale::StorageClient
