// Handle and constant values of the socket layer, in the Windows socket
// numbering that every backend speaks at its interface.
#pragma once

#include <cstdint>

namespace Quorvendale::Networking {

using SocketHandle = std::uint64_t;
inline constexpr SocketHandle INVALID_SOCKET = ~SocketHandle{0};

enum AddressFamily : std::uint32_t {
    InterNetwork = 2,     // IPv4
    InterNetworkV6 = 23,  // IPv6
};

inline constexpr std::int32_t socketTypeStream = 1;
inline constexpr std::int32_t protocolTcp = 6;

}  // namespace Quorvendale::Networking
