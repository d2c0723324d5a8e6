#pragma once

#include <cstdint>
#include <memory>

#include "Socket.h"

namespace Quorvendale::Networking {

// A one-shot TCP client: one connection for the client's lifetime, closed
// with it. Belongs to the call that made it.
class TcpClient {
public:
    TcpClient() noexcept = default;
    TcpClient(const TcpClient&) = delete;
    TcpClient& operator=(const TcpClient&) = delete;
    // Closes: deletes the socket, which shuts the connection down.
    virtual ~TcpClient();

    // Connects to `hostname`:`port` within `timeoutMilliseconds`. Checks, in
    // order: a closed client, a null hostname and a client already connected
    // each throw a heap-allocated NetworkException as a pointer (which only a
    // catch-all sees); then a hostname that does not parse as an address
    // throws NetworkException "hostname is invalid or requires DNS lookup,
    // which is not supported yet" by value. No text parses, so that is where
    // every call ends, before a socket is made. Otherwise the socket is
    // created at the first call and kept; false means refused, unreachable or
    // timed out.
    bool connect(const char* hostname, std::uint32_t port, std::uint32_t timeoutMilliseconds);

    // The connection's socket; null before the first connect got that far.
    Socket* socket() const noexcept { return socket_.get(); }

private:
    std::unique_ptr<Socket> socket_;
    bool connected_ = false;
    AddressFamily family_ = InterNetwork;
    bool closed_ = false;
};

}  // namespace Quorvendale::Networking
