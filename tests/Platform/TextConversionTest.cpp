#include "Platform/TextConversion.h"

#include <gtest/gtest.h>

#include <string>

namespace Quorvendale::Platform {
namespace {

using namespace std::string_literals;

TEST(TextConversion, ConvertsEveryPlaneBothWays) {
    const std::string utf8 = "a\u00E9\u20AC\U0001F600z";
    const std::u16string utf16 = u"a\u00E9\u20AC\U0001F600z";
    EXPECT_EQ(utf8ToUtf16(utf8), utf16);
    EXPECT_EQ(utf16ToUtf8(utf16), utf8);
    EXPECT_EQ(utf8ToUtf16(""), u"");
    EXPECT_EQ(utf16ToUtf8(u""), "");
}

TEST(TextConversion, StopsAtTheFirstZero) {
    EXPECT_EQ(utf8ToUtf16("ab\0cd"s), u"ab");
    EXPECT_EQ(utf8ToUtf16("\0cd"s), u"");
    EXPECT_EQ(utf16ToUtf8(u"ab\0cd"s), "ab");
    // A zero inside a sequence ends the text there, after the broken part.
    EXPECT_EQ(utf8ToUtf16("\xE2\x82\0\xAC"s), u"\uFFFD");
}

TEST(TextConversion, EachMaximalInvalidPartOfUtf8BecomesOneReplacement) {
    const struct {
        std::string in;
        std::u16string out;
    } cases[] = {
        {"\x80", u"\uFFFD"},                                // stray continuation byte
        {"a\xE2\x82z", u"a\uFFFDz"},                        // truncated three-byte form
        {"\xF0\x9F\x98", u"\uFFFD"},                        // truncated at the end
        {"\xC0\xAF", u"\uFFFD\uFFFD"},                      // overlong, lead never valid
        {"\xE0\x80\x80", u"\uFFFD\uFFFD\uFFFD"},            // overlong three-byte form
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},            // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
        {"\xFF\xFE", u"\uFFFD\uFFFD"},
        {"\xF4\x8F\xBF\xBF", u"\U0010FFFF"},  // the last code point is valid
    };
    for (const auto& [in, out] : cases)
        EXPECT_EQ(utf8ToUtf16(in), out) << testing::PrintToString(in);
}

TEST(TextConversion, UnpairedSurrogatesBecomeReplacements) {
    EXPECT_EQ(utf16ToUtf8(u"a\xD83D"s), "a\uFFFD");
    EXPECT_EQ(utf16ToUtf8(u"\xDE00z"s), "\uFFFDz");
    EXPECT_EQ(utf16ToUtf8(u"\xD83D\xD83D\xDE00"s), "\uFFFD\U0001F600");
}

}  // namespace
}  // namespace Quorvendale::Platform
