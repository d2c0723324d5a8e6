#pragma once

#include <cstdint>
#include <memory>

#include "IPAddress.h"

namespace Quorvendale::Networking {

class SocketPrivate;

// A blocking client-side socket. Owns its implementation; destruction shuts
// the connection down and closes the handle. Errors are Windows socket
// numbers (SocketError.h) on every platform. Sends never raise SIGPIPE.
class Socket {
public:
    // A new socket (for TCP: InterNetwork, socketTypeStream, protocolTcp).
    // Throws std::runtime_error "Failed to create socket".
    Socket(std::int32_t family, std::int32_t type, std::int32_t protocol);
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    virtual ~Socket();

    // Connects to `address`:`port` (low 16 bits), waiting at most
    // `timeoutMilliseconds`. False when refused, unreachable or not done in
    // time; never throws for those. A connection made at the first attempt
    // leaves the socket non-blocking: callers set the mode they need.
    bool connect(const IPAddress& address, std::uint32_t port, std::uint32_t timeoutMilliseconds);

    // Transfer exactly `length` bytes. 0 when all went through, otherwise the
    // first error's number, transient ones included. A length below 1 returns
    // 0 at once without any system call; so does a socket that is not
    // connected (it reports the last error, 0 if nothing failed). A peer that
    // closes before `length` bytes arrived gives WSAENOTCONN; a blocking
    // transfer that outlives its time-out gives WSAETIMEDOUT and leaves the
    // socket not connected.
    std::int32_t sendAll(const char* buffer, std::int32_t length);
    std::int32_t receiveAll(char* buffer, std::int32_t length);

    void setReceiveTimeout(std::uint32_t milliseconds);
    void setSendTimeout(std::uint32_t milliseconds);
    bool setBlocking(bool blocking) noexcept;

    bool connected() const noexcept;

private:
    std::unique_ptr<SocketPrivate> private_;
};

}  // namespace Quorvendale::Networking
