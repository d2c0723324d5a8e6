// Decodes arbitrary stored bytes and holds the result to the text-mode rules
// applied one byte at a time, with both scans agreeing. Then stores the input
// as a value, in pieces of a size the input picks, and checks that a value
// without 0x1A comes back unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Storage/TextMode.h"

namespace TextMode = Quorvendale::Storage::TextMode;

namespace {

std::string decodedByteByByte(std::string_view stored) {
    std::string value;
    for (std::size_t at = 0; at < stored.size() && stored[at] != '\x1A'; ++at) {
        if (stored[at] == '\r' && at + 1 < stored.size() && stored[at + 1] == '\n') continue;
        value += stored[at];
    }
    return value;
}

std::string decoded(std::string stored) {
    stored.resize(TextMode::decode(stored.data(), stored.size()));
    return stored;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const char* const end = input.data() + input.size();
    if (TextMode::findMark(input.data(), end) != TextMode::findMarkPortable(input.data(), end)) {
        std::abort();
    }
    if (decoded(std::string(input)) != decodedByteByByte(input)) std::abort();

    const std::size_t room = 2 + (size == 0 ? 0 : data[0] % 64);
    std::string stored;
    std::string piece(room, '\0');
    for (std::string_view value = input; !value.empty();) {
        stored.append(piece.data(), TextMode::encode(value, piece.data(), room));
    }
    if (input.find('\x1A') == std::string_view::npos && decoded(stored) != input) std::abort();
    return 0;
}
