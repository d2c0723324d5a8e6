#pragma once

#include <array>
#include <cstdint>

namespace Quorvendale::Networking {

// A socket address in the standard IPv4/IPv6 layout (family little-endian in
// bytes 0-1, port big-endian in bytes 2-3, ...), in a zero-filled 32-byte
// buffer, with the length a connect call uses.
struct SocketAddress {
    std::array<std::uint8_t, 32> bytes{};
    std::uint8_t size = 0;
};

}  // namespace Quorvendale::Networking
