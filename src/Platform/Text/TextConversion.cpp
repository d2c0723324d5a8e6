// The conversions to a new string, the same over every backend's
// appendUtf16 and utf16ToUtf8 into a buffer.
#include "Platform/Text/TextConversion.h"

namespace Quorvendale::Platform {

std::u16string utf8ToUtf16(std::string_view text) {
    std::u16string result;
    appendUtf16(result, text);
    return result;
}

std::string utf16ToUtf8(std::u16string_view text) {
    std::string result;
    result.resize_and_overwrite(utf8SizeLimit(text.size()),
                                [&](char* begin, std::size_t) { return utf16ToUtf8(text, begin); });
    return result;
}

}  // namespace Quorvendale::Platform
