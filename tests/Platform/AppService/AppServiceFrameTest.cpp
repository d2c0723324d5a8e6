#include <gtest/gtest.h>

#include <string>

#include "Platform/AppService/AppServiceFrame.h"

namespace Quorvendale::Platform {
namespace {

std::string littleEndian(std::uint64_t value, std::size_t bytes) {
    std::string out;
    for (std::size_t i = 0; i < bytes; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
    return out;
}

// A body by hand: request 7 with the given entry count, then the entry bytes.
std::string body(std::uint32_t count, const std::string& entries) {
    return "\x01" + littleEndian(7, 8) + littleEndian(count, 4) + entries;
}

std::string key(std::u16string_view text) {
    std::string out = littleEndian(text.size(), 4);
    for (char16_t unit : text) out += littleEndian(unit, 2);
    return out;
}

TEST(AppServiceFrame, RoundTripsEveryTypeWithNulsAndLoneSurrogates) {
    const std::u16string awkward(u"a\0b\xD800z", 5);
    AppServiceFrame frame{AppServiceFrame::Kind::Response, 0x0102030405060708u, ValueSet()};
    // Large: shared when encoded, copied out in steps when decoded.
    const std::u16string large = std::u16string(300'000, u'l') + awkward;
    frame.message.Insert(u"large", PropertyValue::CreateString(hstring(large)));
    frame.message.Insert(u"text", PropertyValue::CreateString(hstring(awkward)));
    frame.message.Insert(hstring(awkward), PropertyValue::CreateInt64(-2));
    frame.message.Insert(u"", nullptr);

    const std::string bytes = frame.encode().value().joined();
    const std::size_t length = AppServiceFrame::bodyLength(bytes);
    ASSERT_EQ(length, bytes.size() - AppServiceFrame::lengthSize);
    // Bytes the decoder is done with are wiped, as a receiver freeing them sees them.
    std::string body = bytes.substr(AppServiceFrame::lengthSize);
    const AppServiceFrame decoded =
        AppServiceFrame::decode(body, [&](std::size_t read) { body.replace(0, read, read, '\0'); });

    EXPECT_EQ(decoded.kind, AppServiceFrame::Kind::Response);
    EXPECT_EQ(decoded.requestId, 0x0102030405060708u);
    ASSERT_EQ(decoded.message.Size(), 4u);
    EXPECT_EQ(unbox_value<hstring>(decoded.message.Lookup(u"large")).str(), large);
    EXPECT_EQ(unbox_value<hstring>(decoded.message.Lookup(u"text")).str(), awkward);
    EXPECT_EQ(unbox_value<std::int64_t>(decoded.message.Lookup(hstring(awkward))), -2);
    EXPECT_FALSE(decoded.message.Lookup(u""));
    EXPECT_EQ(decoded.message.begin()->first, hstring(u"large"));  // order kept
}

TEST(AppServiceFrame, RefusesEveryInconsistentBody) {
    const std::string nullEntry = key(u"k") + '\0';
    const struct {
        const char* what;
        std::string body;
    } cases[] = {
        {"unknown kind", "\x09" + littleEndian(7, 8) + littleEndian(0, 4)},
        {"truncated id", "\x01\x07\x00"},
        {"count beyond the entries", body(2, nullEntry)},
        {"absurd count", body(0xFFFFFFFF, nullEntry)},
        {"key longer than the body", body(1, littleEndian(1000, 4) + "ab")},
        {"unknown type tag", body(1, key(u"k") + '\x05')},
        {"string longer than the body", body(1, key(u"k") + '\x0C' + littleEndian(0x7FFFFFFF, 4))},
        {"truncated int64", body(1, key(u"k") + '\x06' + "1234")},
        {"bytes after the last entry", body(1, nullEntry + "x")},
        {"repeated key", body(2, nullEntry + nullEntry)},
    };
    for (const auto& c : cases) {
        EXPECT_THROW(AppServiceFrame::decode(c.body), MalformedFrame) << c.what;
    }
    EXPECT_NO_THROW(AppServiceFrame::decode(body(1, nullEntry)));
    // The announced length is bounded by the limit, which it may reach.
    const std::size_t limit = AppServiceFrame::maximumBodySize;
    EXPECT_EQ(AppServiceFrame::bodyLength(littleEndian(limit, 4)), limit);
    EXPECT_THROW(AppServiceFrame::bodyLength(littleEndian(limit + 1, 4)), MalformedFrame);
}

}  // namespace
}  // namespace Quorvendale::Platform
