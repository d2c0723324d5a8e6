// Conversion between UTF-8 and UTF-16 text, as the platform converts with
// code page 65001 and no flags: the input ends at its first zero character,
// every invalid sequence becomes U+FFFD, and empty text stays empty. The
// result is always well-formed, so converting it back loses nothing more.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

// UTF-8 to UTF-16. Each invalid part gives one U+FFFD, counted as the
// platform counts them: a stray continuation byte is one part; a sequence
// cut short by a byte that cannot continue it is one part, the byte not
// included; an overlong form, an encoded surrogate or a value above U+10FFFF
// is one part of the lead and the next byte, and each byte after that one
// more; a sequence longer than the text left takes all the rest as one.
QV_PLATFORM_API std::u16string utf8ToUtf16(std::string_view text);
// The same, appended to `to`: builds a path in one buffer.
QV_PLATFORM_API void appendUtf16(std::u16string& to, std::string_view text);

// UTF-16 to UTF-8. An unpaired surrogate gives one U+FFFD.
QV_PLATFORM_API std::string utf16ToUtf8(std::u16string_view text);
// The same, written to `out`, which has room for utf8SizeLimit(text.size())
// bytes; gives the number written. No terminating zero is added.
QV_PLATFORM_API std::size_t utf16ToUtf8(std::u16string_view text, char* out);
// The most UTF-8 bytes that `units` UTF-16 units can give: three per unit
// (a pair of two units takes four).
constexpr std::size_t utf8SizeLimit(std::size_t units) { return 3 * units; }

}  // namespace Quorvendale::Platform
