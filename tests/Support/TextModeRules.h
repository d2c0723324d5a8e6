// The text-mode reading rules in their plainest form, one byte at a time:
// the oracle that the store's decoders are held to.
#pragma once

#include <string>
#include <string_view>

namespace Quorvendale::Testing {

inline std::string decodedByteByByte(std::string_view stored) {
    std::string value;
    for (std::size_t at = 0; at < stored.size() && stored[at] != '\x1A'; ++at) {
        if (stored[at] == '\r' && at + 1 < stored.size() && stored[at + 1] == '\n') continue;
        value += stored[at];
    }
    return value;
}

}  // namespace Quorvendale::Testing
