// Plain sockets on 127.0.0.1 for tests, over the system's own socket calls:
// the other end of what the networking layer is tested against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Quorvendale::Testing {

inline constexpr std::uint32_t loopback = 0x0100007F;  // as it lies in a socket address
using SocketHandle = std::uint64_t;                      // as the networking layer keeps one

struct LoopbackListener {
    SocketHandle handle;
    std::uint16_t port;
};

// Bound to an ephemeral port; with a backlog of 0 it does not listen, so that
// connects to its port are refused while it is open.
LoopbackListener listenOnLoopback(int backlog);
bool readable(SocketHandle handle, int milliseconds);
SocketHandle acceptConnection(SocketHandle listener);  // with Nagle's delay off
long receiveSome(SocketHandle handle, char* buffer, std::size_t size);
void sendBytes(SocketHandle handle, const std::string& bytes);  // raises no SIGPIPE
void closeSocket(SocketHandle handle);

}  // namespace Quorvendale::Testing
