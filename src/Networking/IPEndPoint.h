#pragma once

#include <cstdint>

#include "EndPoint.h"
#include "IPAddress.h"

namespace Quorvendale::Networking {

// An IP address and a port; only the port's low 16 bits are used.
class IPEndPoint : public EndPoint {
public:
    IPEndPoint() noexcept = default;
    IPEndPoint(const IPAddress& address, std::uint32_t port) noexcept
        : address_(address), port_(port) {}

    AddressFamily addressFamily() const override { return address_.family(); }

    // IPv4 (any family but IPv6): bytes 4-7 hold the address bytes, the rest
    // is zero. IPv6: bytes 8-23 hold the address, 24-27 the scope id's low 32
    // bits. The used length is 16 for IPv4 and 28 otherwise, so a family that
    // is neither gets the IPv4 contents with length 28.
    SocketAddress toSocketAddress() const override;

    const IPAddress& address() const noexcept { return address_; }
    std::uint32_t port() const noexcept { return port_; }

private:
    IPAddress address_;
    std::uint32_t port_ = 0;
};

}  // namespace Quorvendale::Networking
