#include "IPEndPoint.h"

#include <algorithm>

namespace Quorvendale::Networking {

SocketAddress IPEndPoint::toSocketAddress() const {
    SocketAddress result;
    auto& bytes = result.bytes;
    const std::uint32_t family = address_.family();
    bytes[0] = static_cast<std::uint8_t>(family);
    bytes[1] = static_cast<std::uint8_t>(family >> 8);
    bytes[2] = static_cast<std::uint8_t>(port_ >> 8);
    bytes[3] = static_cast<std::uint8_t>(port_);
    const auto address = address_.addressBytes();
    if (family == InterNetworkV6) {
        std::copy(address.begin(), address.end(), bytes.begin() + 8);
        const auto scope = static_cast<std::uint32_t>(address_.scopeId());
        for (int i = 0; i < 4; ++i) bytes[24 + i] = static_cast<std::uint8_t>(scope >> (8 * i));
    } else {
        std::copy(address.begin(), address.end(), bytes.begin() + 4);
    }
    result.size = family == InterNetwork ? 16 : 28;
    return result;
}

}  // namespace Quorvendale::Networking
