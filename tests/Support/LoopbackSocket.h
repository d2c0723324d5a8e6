// Plain sockets on 127.0.0.1 for tests, over the system's own socket calls:
// the other end of what the networking layer is tested against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Quorvendale::Testing {

// 127.0.0.1 as it lies in a socket address.
inline constexpr std::uint32_t loopback = 0x0100007F;

// A socket handle of the system, as the networking layer keeps one.
using SocketHandle = std::uint64_t;

struct LoopbackListener {
    SocketHandle handle;
    std::uint16_t port;
};

// A TCP socket bound to 127.0.0.1 at an ephemeral port, listening with
// `backlog` when that is above 0, and otherwise only bound, so that connects
// to its port are refused while it is open. Throws std::runtime_error.
LoopbackListener listenOnLoopback(int backlog);

// True when `handle` has a connection to accept, bytes to read or an end to
// report within `milliseconds`.
bool readable(SocketHandle handle, int milliseconds);

// The next connection on a listener, with Nagle's delay off.
SocketHandle acceptConnection(SocketHandle listener);

// One receive: the count, 0 when the peer has closed, below 0 on failure.
long receiveSome(SocketHandle handle, char* buffer, std::size_t size);

// One send of all the bytes; a peer that is gone raises no signal.
void sendBytes(SocketHandle handle, const std::string& bytes);

void closeSocket(SocketHandle handle);

}  // namespace Quorvendale::Testing
