// The text conversion of Windows: the system's own, code page 65001 with no
// flags. The text ends at its first zero character, as it does for a caller
// that hands the system a zero-terminated string.
#include <windows.h>

#include <climits>
#include <stdexcept>

#include "Platform/Text/TextConversion.h"

namespace Quorvendale::Platform {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "UTF-16 text passes to the system as it is");

// The text up to its first zero, in a size the system's calls take (an int
// that also holds the largest result).
template <class Char>
std::basic_string_view<Char> upToFirstZero(std::basic_string_view<Char> text) {
    text = text.substr(0, text.find(Char{}));
    if (utf8SizeLimit(text.size()) > INT_MAX) throw std::length_error("text too long to convert");
    return text;
}

}  // namespace

void appendUtf16(std::u16string& to, std::string_view text) {
    text = upToFirstZero(text);
    if (text.empty()) return;
    const std::size_t kept = to.size();
    // Never more UTF-16 units than UTF-8 bytes.
    to.resize_and_overwrite(kept + text.size(), [&](char16_t* begin, std::size_t size) {
        return kept + static_cast<std::size_t>(::MultiByteToWideChar(
                          CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                          reinterpret_cast<wchar_t*>(begin + kept), static_cast<int>(size - kept)));
    });
}

std::size_t utf16ToUtf8(std::u16string_view text, char* out) {
    text = upToFirstZero(text);
    if (text.empty()) return 0;
    return static_cast<std::size_t>(::WideCharToMultiByte(
        CP_UTF8, 0, reinterpret_cast<const wchar_t*>(text.data()), static_cast<int>(text.size()),
        out, static_cast<int>(utf8SizeLimit(text.size())), nullptr, nullptr));
}

}  // namespace Quorvendale::Platform
