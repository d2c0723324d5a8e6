#include "IPAddress.h"

namespace Quorvendale::Networking {

bool IPAddress::tryParse(const char*, IPAddress&) noexcept { return false; }

std::vector<std::uint8_t> IPAddress::addressBytes() const {
    if (family_ == InterNetworkV6) return {ipv6_.begin(), ipv6_.end()};
    return {static_cast<std::uint8_t>(ipv4_), static_cast<std::uint8_t>(ipv4_ >> 8),
            static_cast<std::uint8_t>(ipv4_ >> 16), static_cast<std::uint8_t>(ipv4_ >> 24)};
}

}  // namespace Quorvendale::Networking
