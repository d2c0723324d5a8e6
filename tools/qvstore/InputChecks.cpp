#include "InputChecks.h"

#include <cstdio>
#include <optional>

namespace Quorvendale::Qvstore {
namespace {

std::string byteAt(std::string_view text, std::size_t offset) {
    char described[48];
    std::snprintf(described, sizeof described, "byte 0x%02X at offset %zu",
                  static_cast<unsigned char>(text[offset]), offset);
    return described;
}

// The offset of the first byte that does not belong to well-formed UTF-8
// (no overlong forms, no surrogates, nothing above U+10FFFF), the way the
// service's conversion sees it; none for valid text.
std::optional<std::size_t> firstInvalidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length;
        unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
        if (lead < 0x80) {
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;   // overlong
            if (lead == 0xED) high = 0x9F;  // surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;   // overlong
            if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
        } else {
            return i;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if (i + k >= text.size()) return i;
            const auto byte = static_cast<unsigned char>(text[i + k]);
            if (byte < (k == 1 ? low : 0x80) || byte > (k == 1 ? high : 0xBF)) return i;
        }
        i += length;
    }
    return std::nullopt;
}

void checkText(std::string_view what, std::string_view text) {
    if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
        throw Refusal(std::string(what) + " holds " + byteAt(text, zero) +
                      " (NUL): the service would cut it there");
    }
    if (const auto invalid = firstInvalidUtf8(text)) {
        throw Refusal(std::string(what) + " is not valid UTF-8 at " + byteAt(text, *invalid) +
                      ": the service would store U+FFFD instead");
    }
}

}  // namespace

void checkName(std::string_view what, std::string_view name) {
    const auto refuse = [&](const std::string& rule) {
        throw Refusal(std::string(what) + " " + rule + ": it must be one file name in the store");
    };
    if (name.empty()) refuse("is empty");
    if (name == "." || name == "..") refuse("is '" + std::string(name) + "'");
    if (const std::size_t slash = name.find('/'); slash != std::string_view::npos) {
        refuse("holds '/' at offset " + std::to_string(slash));
    }
    if (name.size() > longestName) {
        refuse("is " + std::to_string(name.size()) + " bytes long, more than " +
               std::to_string(longestName));
    }
    checkText(what, name);
}

void checkValue(std::string_view value) {
    checkText("the value", value);
    if (const std::size_t end = value.find('\x1A'); end != std::string_view::npos) {
        throw Refusal("the value holds " + byteAt(value, end) +
                      " (end of text): it would be read back cut there");
    }
}

}  // namespace Quorvendale::Qvstore
