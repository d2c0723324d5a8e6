// Our own UTF-8 and UTF-16 conversion, reproducing what the system does with
// code page 65001 and no flags; the Linux build has no system to ask.
#include "Platform/Text/TextConversion.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Quorvendale::Platform {

namespace {

constexpr char16_t replacementCharacter = u'\uFFFD';

// One decoded step of UTF-8: the code point, or the replacement character
// for an invalid part, and how many bytes it took.
struct Decoded {
    char32_t codePoint;
    std::size_t length;
};

// Invalid parts are counted as the platform's decoder counts them (see
// TextConversion.h), which is not quite Unicode's "maximal subpart". The
// lead byte fixes the length and narrows the range of the second byte; that
// narrowing is what rejects overlong forms, surrogates and values above
// U+10FFFF without decoding them first.
Decoded decodeUtf8(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    std::size_t length = 0;
    char32_t codePoint = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        codePoint = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        codePoint = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        codePoint = lead & 0x07;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {replacementCharacter, 1};
    }
    if (length > text.size() - at) return {replacementCharacter, text.size() - at};
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[at + i]);
        if (next < 0x80 || next > 0xBF) return {replacementCharacter, i};
        if (next < low || next > high) return {replacementCharacter, i + 1};
        low = 0x80;
        high = 0xBF;
        codePoint = (codePoint << 6) | (next & 0x3F);
    }
    return {codePoint, length};
}

// The writers put a code point through a pointer into output sized for the
// worst case and left uninitialised, which is trimmed once at the end: paths
// pass through here several times in every store operation.
char16_t* writeUtf16(char16_t* out, char32_t codePoint) {
    if (codePoint < 0x10000) {
        *out++ = static_cast<char16_t>(codePoint);
        return out;
    }
    codePoint -= 0x10000;
    *out++ = static_cast<char16_t>(0xD800 + (codePoint >> 10));
    *out++ = static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF));
    return out;
}

char* writeUtf8(char* out, char32_t codePoint) {
    if (codePoint < 0x80) {
        *out++ = static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        *out++ = static_cast<char>(0xC0 | (codePoint >> 6));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        *out++ = static_cast<char>(0xE0 | (codePoint >> 12));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        *out++ = static_cast<char>(0xF0 | (codePoint >> 18));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        *out++ = static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (codePoint & 0x3F));
    }
    return out;
}

// Units 1 to 0x7F, nearly all of every path, are converted four at a time
// in one 64-bit word: writes them as bytes when all four are such units.
// A unit u passes exactly when neither u nor u - 1 has a bit above 0x7F; a
// zero unit, the only one whose u - 1 borrows from the next, fails itself.
bool narrowAscii(const char16_t* units, char* out) {
    if constexpr (std::endian::native != std::endian::little) return false;
    std::uint64_t word;
    std::memcpy(&word, units, sizeof word);
    if (((word | (word - 0x0001000100010001)) & 0xFF80FF80FF80FF80) != 0) return false;
    const auto bytes =
        static_cast<std::uint32_t>((word & 0xFF) | ((word >> 8) & 0xFF00) |
                                   ((word >> 16) & 0xFF0000) | ((word >> 24) & 0xFF000000));
    std::memcpy(out, &bytes, sizeof bytes);
    return true;
}

// Values are mostly ASCII: such runs convert a block at a time, in loops of
// fixed length that the compiler turns into vector code.
constexpr std::size_t block = 16;

// The tests take the block as 64-bit words: a loop over its bytes or units
// would end in a reduction across a vector, which costs more than the test.
constexpr std::size_t wordsPerBlock = block / sizeof(std::uint64_t);

bool asciiBlock(const char* bytes) {
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < wordsPerBlock; ++i) {
        std::uint64_t word;
        std::memcpy(&word, bytes + i * sizeof word, sizeof word);
        seen |= word;
    }
    return (seen & 0x8080808080808080) == 0;
}

// Units 1 to 0x7F only: a zero ends the text, so it must be seen alone. A
// unit u passes when neither u nor u - 1 has a bit above 0x7F; a zero unit,
// the only one whose u - 1 borrows from the next, fails itself.
bool asciiBlock(const char16_t* units) {
    if constexpr (std::endian::native != std::endian::little) return false;
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < 2 * wordsPerBlock; ++i) {
        std::uint64_t word;
        std::memcpy(&word, units + i * 4, sizeof word);
        seen |= word | (word - 0x0001000100010001);
    }
    return (seen & 0xFF80FF80FF80FF80) == 0;
}

// Unaliased, so that no check of overlap keeps the compiler from vectors.
void widenBlock(const char* __restrict bytes, char16_t* __restrict units) {
    for (std::size_t i = 0; i < block; ++i) units[i] = static_cast<unsigned char>(bytes[i]);
}

void narrowBlock(const char16_t* __restrict units, char* __restrict bytes) {
    for (std::size_t i = 0; i < block; ++i) bytes[i] = static_cast<char>(units[i]);
}

bool isHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

}  // namespace

void appendUtf16(std::u16string& to, std::string_view text) {
    text = text.substr(0, text.find('\0'));
    const std::size_t kept = to.size();
    // Never more UTF-16 units than UTF-8 bytes.
    to.resize_and_overwrite(kept + text.size(), [&](char16_t* begin, std::size_t) {
        char16_t* out = begin + kept;
        for (std::size_t at = 0; at < text.size();) {
            if (text.size() - at >= block && asciiBlock(text.data() + at)) {
                widenBlock(text.data() + at, out);
                out += block;
                at += block;
                continue;
            }
            if (static_cast<unsigned char>(text[at]) < 0x80) {
                *out++ = static_cast<char16_t>(text[at++]);
                continue;
            }
            const Decoded decoded = decodeUtf8(text, at);
            out = writeUtf16(out, decoded.codePoint);
            at += decoded.length;
        }
        return static_cast<std::size_t>(out - begin);
    });
}

std::size_t utf16ToUtf8(std::u16string_view text, char* out) {
    char* const begin = out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text.size() - at >= block && asciiBlock(&text[at])) {
            narrowBlock(&text[at], out);
            out += block;
            at += block - 1;
            continue;
        }
        if (text.size() - at >= 4 && narrowAscii(&text[at], out)) {
            out += 4;
            at += 3;
            continue;
        }
        const char16_t unit = text[at];
        if (unit < 0x80) {
            if (unit == 0) break;  // the text ends at its first zero
            *out++ = static_cast<char>(unit);
        } else if (isHighSurrogate(unit) && at + 1 < text.size() && isLowSurrogate(text[at + 1])) {
            out =
                writeUtf8(out, 0x10000 + ((char32_t{unit} - 0xD800) << 10) + (text[++at] - 0xDC00));
        } else if (isHighSurrogate(unit) || isLowSurrogate(unit)) {
            out = writeUtf8(out, replacementCharacter);
        } else {
            out = writeUtf8(out, unit);
        }
    }
    return static_cast<std::size_t>(out - begin);
}

}  // namespace Quorvendale::Platform
