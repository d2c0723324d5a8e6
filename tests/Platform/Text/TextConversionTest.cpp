#include "Platform/Text/TextConversion.h"

#include <gtest/gtest.h>

namespace Quorvendale::Platform {
namespace {

using namespace std::string_literals;

// As Windows counts invalid parts, which is not Unicode's "maximal subpart".
TEST(TextConversion, EachInvalidPartBecomesOneReplacement) {
    const std::pair<std::string, std::u16string> cases[] = {
        {"a\u00E9\u20AC\U0001F600\0z"s, u"a\u00E9\u20AC\U0001F600"},  // ends at the zero
        {"\xE2\x82\0\xAC"s, u"\uFFFD"},                               // a zero ends a sequence too
        {"\x80", u"\uFFFD"},                                          // stray continuation byte
        {"a\xE2\x82z", u"a\uFFFDz"},                                  // cut short by a byte
        {"\xF0\x9F\x98", u"\uFFFD"},                                  // truncated at the end
        {"\xF0\x9F\x61", u"\uFFFD"},                                  // takes what is left
        {"\xC0\xAF", u"\uFFFD\uFFFD"},                                // overlong, lead never valid
        {"\xE0\x80\x80", u"\uFFFD\uFFFD"},                            // overlong three-byte form
        {"\xED\xA0\x80", u"\uFFFD\uFFFD"},                            // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD"},                  // above U+10FFFF
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},  // the last code point is valid
    };
    for (const auto& [in, out] : cases)
        EXPECT_EQ(utf8ToUtf16(in), out) << testing::PrintToString(in);
}

TEST(TextConversion, UnpairedSurrogatesBecomeReplacements) {
    EXPECT_EQ(utf16ToUtf8(u"a\u00E9\u20AC\U0001F600\0z"s), "a\u00E9\u20AC\U0001F600");
    EXPECT_EQ(utf16ToUtf8(u"a\xD83D"s), "a\uFFFD");
    EXPECT_EQ(utf16ToUtf8(u"\xDE00z"s), "\uFFFDz");
    EXPECT_EQ(utf16ToUtf8(u"\xD83D\xD83D\xDE00"s), "\uFFFD\U0001F600");
}

// Long ASCII runs convert by blocks: a zero or a wider character anywhere
// in a block must still be seen where it stands.
TEST(TextConversion, AZeroOrAWideCharacterIsSeenAtEveryPlaceInABlock) {
    for (std::size_t at = 0; at < 40; ++at) {
        std::string ascii(40, 'a');
        ascii[at] = '\0';
        EXPECT_EQ(utf8ToUtf16(ascii), std::u16string(at, u'a')) << at;
        EXPECT_EQ(utf16ToUtf8(std::u16string(ascii.begin(), ascii.end())), ascii.substr(0, at)) << at;
        std::u16string wide(40, u'a');
        wide[at] = u'\u00E9';
        const std::string narrow = std::string(at, 'a') + "\u00E9" + std::string(39 - at, 'a');
        EXPECT_EQ(utf16ToUtf8(wide), narrow) << at;
        EXPECT_EQ(utf8ToUtf16(narrow), wide) << at;
    }
}

}  // namespace
}  // namespace Quorvendale::Platform
