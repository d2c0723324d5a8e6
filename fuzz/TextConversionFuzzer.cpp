// Feeds arbitrary bytes to both text conversions, as UTF-8 and as UTF-16 code
// units. Both must always give well-formed text: converting their result
// again must give it back unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "Platform/Text/TextConversion.h"

using Quorvendale::Platform::utf16ToUtf8;
using Quorvendale::Platform::utf8ToUtf16;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::u16string wide = utf8ToUtf16(bytes);
    if (wide.size() > bytes.size()) std::abort();
    if (utf8ToUtf16(utf16ToUtf8(wide)) != wide) std::abort();
    // Text that is valid UTF-8 up to its first zero comes back byte for byte.
    if (wide.find(u'\uFFFD') == std::u16string::npos &&
        utf16ToUtf8(wide) != bytes.substr(0, bytes.find('\0'))) {
        std::abort();
    }

    std::u16string units(size / 2, u'\0');
    std::memcpy(units.data(), data, units.size() * 2);
    const std::string narrow = utf16ToUtf8(units);
    if (utf16ToUtf8(utf8ToUtf16(narrow)) != narrow) std::abort();
    return 0;
}
