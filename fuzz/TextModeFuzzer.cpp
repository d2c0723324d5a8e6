// Decodes arbitrary stored bytes both ways and holds the results to the
// text-mode rules applied one byte at a time. Then stores the input
// as a value, in pieces of a size the input picks, and checks that a value
// without 0x1A comes back unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Storage/TextMode.h"
#include "Support/TextModeRules.h"

namespace TextMode = Quorvendale::Storage::TextMode;

namespace {

std::string decoded(std::string stored) {
    stored.resize(TextMode::decode(stored.data(), stored.size()));
    return stored;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string expected = Quorvendale::Testing::decodedByteByByte(input);
    std::string portable(input);
    portable.resize(TextMode::decodePortable(portable.data(), portable.size()));
    if (decoded(std::string(input)) != expected || portable != expected) std::abort();

    const std::size_t room = 2 + (size == 0 ? 0 : data[0] % 64);
    std::string stored;
    std::string piece(room, '\0');
    for (std::string_view value = input; !value.empty();) {
        stored.append(piece.data(), TextMode::encode(value, piece.data(), room));
    }
    if (input.find('\x1A') == std::string_view::npos && decoded(stored) != input) std::abort();
    return 0;
}
