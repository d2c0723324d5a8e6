#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "SocketTypes.h"

namespace Quorvendale::Networking {

// An IPv4 or IPv6 address, as a plain value.
class IPAddress {
public:
    // 0.0.0.0.
    IPAddress() noexcept = default;
    // `ipv4` as it lies in a socket address: the first octet in the least
    // significant byte (127.0.0.1 is 0x0100007F).
    explicit IPAddress(std::uint32_t ipv4) noexcept : ipv4_(ipv4) {}

    // Recognises no text form at all: returns false for every text and leaves
    // `address` untouched. Text forms and name lookup are not supported, so
    // every connect by host text fails before a socket is made.
    static bool tryParse(const char* text, IPAddress& address) noexcept;

    AddressFamily family() const noexcept { return family_; }
    std::uint64_t scopeId() const noexcept { return scopeId_; }

    // For IPv6 the 16 address bytes; for any other family the four bytes of
    // the IPv4 value, least significant first.
    std::vector<std::uint8_t> addressBytes() const;

private:
    AddressFamily family_ = InterNetwork;
    std::array<std::uint8_t, 16> ipv6_{};
    std::uint32_t ipv4_ = 0;
    std::uint64_t scopeId_ = 0;
};

}  // namespace Quorvendale::Networking
