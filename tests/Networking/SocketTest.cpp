#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "Networking/NetworkException.h"
#include "Networking/Socket.h"
#include "Networking/SocketError.h"
#include "Networking/SocketPrivate.h"
#include "Networking/TcpClient.h"
#include "Support/LoopbackServer.h"

namespace Quorvendale::Networking {
namespace {

using Testing::LoopbackServer;

std::unique_ptr<Socket> connectedTo(const LoopbackServer& server) {
    auto socket = std::make_unique<Socket>(InterNetwork, kSocketTypeStream, kProtocolTcp);
    if (!socket->connect(IPAddress(Testing::kLoopback), server.port(), 3000)) {
        throw std::runtime_error("loopback server unreachable");
    }
    return socket;
}

TEST(SocketTest, TransfersOfLengthBelowOneMakeNoCall) {
    LoopbackServer server({{.bytes = "x", .readFrame = false, .holdOpen = true}});
    auto socket = connectedTo(server);
    // A null buffer is refused by the first send call, so no call was made.
    EXPECT_EQ(socket->sendAll(nullptr, 0), 0);
    EXPECT_EQ(socket->sendAll(nullptr, -1), 0);
    EXPECT_EQ(socket->receiveAll(nullptr, 0), 0);
    EXPECT_THROW(socket->sendAll(nullptr, 1), NetworkException);
    EXPECT_TRUE(socket->connected());
}

TEST(SocketTest, PeerClosingMidReceiveGivesNotConnected) {
    LoopbackServer server({{.bytes = "abc", .readFrame = false}});
    auto socket = connectedTo(server);
    socket->setBlocking(true);
    char buffer[10];
    EXPECT_EQ(socket->receiveAll(buffer, sizeof buffer), WSAENOTCONN);
    EXPECT_EQ(std::string(buffer, 3), "abc");
}

TEST(SocketTest, ReceiveTimeOutGivesTimedOutAndEndsTheConnection) {
    LoopbackServer server({{.bytes = "", .readFrame = false, .holdOpen = true}});
    auto socket = connectedTo(server);
    socket->setBlocking(true);
    socket->setReceiveTimeout(100);
    char buffer[4];
    EXPECT_EQ(socket->receiveAll(buffer, sizeof buffer), WSAETIMEDOUT);
    EXPECT_FALSE(socket->connected());
    // A socket that is no longer connected transfers nothing and reports 0.
    EXPECT_EQ(socket->sendAll("data", 4), 0);
}

TEST(SocketTest, NonBlockingReceiveWithNothingThereWouldBlockAndStaysConnected) {
    LoopbackServer server({{.bytes = "", .readFrame = false, .holdOpen = true}});
    auto socket = connectedTo(server);
    socket->setBlocking(false);
    char buffer[4];
    EXPECT_EQ(socket->receiveAll(buffer, sizeof buffer), WSAEWOULDBLOCK);
    EXPECT_TRUE(socket->connected());
}

TEST(SocketTest, SendToAVanishedPeerReportsAnErrorInsteadOfRaisingSigpipe) {
    LoopbackServer server({{.bytes = "", .readFrame = false}});
    auto socket = connectedTo(server);
    socket->setBlocking(true);
    char byte;
    ASSERT_EQ(socket->receiveAll(&byte, 1), WSAENOTCONN);  // the server has closed
    const std::string chunk(64 * 1024, 'z');
    std::int32_t error = 0;
    for (int i = 0; i < 100 && error == 0; ++i) error = socket->sendAll(chunk.data(), 65536);
    EXPECT_EQ(error, WSAECONNRESET);
    EXPECT_FALSE(socket->connected());
}

TEST(SocketTest, RefusedConnectReturnsFalse) {
    // A bound port that does not listen refuses; keeping it bound keeps the
    // port from being reused meanwhile.
    const int bound = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = Testing::kLoopback;
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(bound, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::getsockname(bound, reinterpret_cast<sockaddr*>(&address), &size), 0);

    Socket socket(InterNetwork, kSocketTypeStream, kProtocolTcp);
    EXPECT_FALSE(socket.connect(IPAddress(Testing::kLoopback), ntohs(address.sin_port), 3000));
    EXPECT_FALSE(socket.connected());
    ::close(bound);
}

TEST(SocketTest, TimeOutsReadBackAsSet) {
    SocketPrivate socket(InterNetwork, kSocketTypeStream, kProtocolTcp);
    socket.setReceiveTimeout(10000);
    socket.setSendTimeout(1500);
    EXPECT_EQ(socket.getReceiveTimeout(), 10000u);
    EXPECT_EQ(socket.getSendTimeout(), 1500u);
}

TEST(SocketTest, WrappedHandlesAreOwnedAndInvalidOnesRefused) {
    SocketPrivate creator(InterNetwork, kSocketTypeStream, kProtocolTcp);
    EXPECT_THROW(creator.createFromHandle(INVALID_SOCKET), NetworkException);

    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    {
        auto wrapped = creator.createFromHandle(static_cast<SocketHandle>(pair[0]));
        EXPECT_EQ(wrapped->family(), -1);
    }
    EXPECT_EQ(::write(pair[0], "x", 1), -1);  // closed with its owner
    // A handle already closed elsewhere: the shut-down fails and is dropped.
    ::close(pair[1]);
    EXPECT_NO_THROW(creator.createFromHandle(static_cast<SocketHandle>(pair[1])));
}

TEST(SocketAddressTest, IPv4LayoutIsFamilyPortAddress) {
    const SocketAddress address = IPEndPoint(IPAddress(0x0A00A8C0), 8080).toSocketAddress();
    const std::uint8_t expected[16] = {0x02, 0x00, 0x1F, 0x90, 0xC0, 0xA8, 0x00, 0x0A};
    EXPECT_EQ(address.size, 16);
    EXPECT_TRUE(std::equal(expected, expected + 16, address.bytes.begin()));
    EXPECT_TRUE(std::all_of(address.bytes.begin() + 16, address.bytes.end(),
                            [](std::uint8_t byte) { return byte == 0; }));
}

TEST(EndPointTest, BaseAddressFamilyThrowsAPointer) {
    struct Bare : EndPoint {
        SocketAddress toSocketAddress() const override { return {}; }
    };
    try {
        Bare().addressFamily();
        FAIL();
    } catch (NetworkException* e) {
        EXPECT_STREQ(e->what(), "Method must be overridden");
        delete e;
    }
}

// The checks of connect in their order; only the parse failure is thrown by
// value, so only it reaches a handler of NetworkException by reference.
TEST(TcpClientTest, NoHostTextParsesAndNoSocketIsMade) {
    IPAddress address(Testing::kLoopback);
    EXPECT_FALSE(IPAddress::tryParse("127.0.0.1", address));
    EXPECT_EQ(address.addressBytes(), (std::vector<std::uint8_t>{127, 0, 0, 1}));

    for (const char* host : {"127.0.0.1", "localhost", ""}) {
        TcpClient client;
        try {
            client.connect(host, 80, 3000);
            FAIL() << host;
        } catch (const NetworkException& e) {
            EXPECT_STREQ(e.what(),
                         "hostname is invalid or requires DNS lookup, which is not supported yet");
        }
        EXPECT_EQ(client.socket(), nullptr);
    }

    TcpClient client;
    try {
        client.connect(nullptr, 80, 3000);
        FAIL();
    } catch (NetworkException* e) {
        EXPECT_STREQ(e->what(), "hostname is null");
        delete e;
    }
}

}  // namespace
}  // namespace Quorvendale::Networking
