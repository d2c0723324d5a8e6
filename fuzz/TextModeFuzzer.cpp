// Decodes arbitrary stored bytes the portable way, held to the text-mode
// rules applied one byte at a time, and with every decoder the processor
// runs, held to the portable one byte for byte. Then stores the input as a
// value, in pieces of a size the input picks, and checks that every decoder
// gives a value without 0x1A back unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Storage/TextMode.h"
#include "Support/TextModeRules.h"

namespace TextMode = Quorvendale::Storage::TextMode;

namespace {

std::string decodedBy(TextMode::Decoder decoder, std::string stored) {
    stored.resize(decoder.decode(stored.data(), stored.size()));
    return stored;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    std::string portable(input);
    portable.resize(TextMode::decodePortable(portable.data(), portable.size()));
    if (portable != Quorvendale::Testing::decodedByteByByte(input)) std::abort();

    const std::size_t room = 2 + (size == 0 ? 0 : data[0] % 64);
    std::string stored;
    std::string piece(room, '\0');
    for (std::string_view value = input; !value.empty();) {
        stored.append(piece.data(), TextMode::encode(value, piece.data(), room));
    }
    const bool roundTrips = input.find('\x1A') == std::string_view::npos;
    for (const TextMode::Decoder& decoder : TextMode::decoders()) {
        if (decodedBy(decoder, std::string(input)) != portable) std::abort();
        if (roundTrips && decodedBy(decoder, stored) != input) std::abort();
    }
    return 0;
}

// Names the paths the run holds to the portable one.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::fprintf(stderr, "TextModeFuzzer: decoders");
    for (const TextMode::Decoder& decoder : TextMode::decoders()) {
        std::fprintf(stderr, " %.*s", static_cast<int>(decoder.name.size()), decoder.name.data());
    }
    std::fprintf(stderr, "\n");
    return 0;
}
