#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "StorageClient/RemoteWireCodec.h"

namespace Quorvendale::StorageClient {
namespace {

using namespace std::string_literals;

std::string varint(std::uint64_t value) {
    std::string bytes;
    appendVarint(bytes, value);
    return bytes;
}

TEST(RemoteWireCodecTest, VarintsRoundTripAtEveryWidth) {
    EXPECT_EQ(varint(0), "\x00"s);
    EXPECT_EQ(varint(127), "\x7F");
    EXPECT_EQ(varint(128), "\x80\x01");
    EXPECT_EQ(varint(300), "\xAC\x02");
    for (const std::uint64_t value : std::initializer_list<std::uint64_t>{
             0, 127, 128, 16383, 16384, std::uint64_t{1} << 35,
             std::numeric_limits<std::uint64_t>::max()}) {
        const std::string bytes = varint(value);
        std::size_t position = 0;
        EXPECT_EQ(readVarint(bytes, position), value);
        EXPECT_EQ(position, bytes.size());
    }
    EXPECT_EQ(varint(std::numeric_limits<std::uint64_t>::max()).size(), 10u);
}

TEST(RemoteWireCodecTest, VarintsThatEndEarlyOrOverflowAreRefused) {
    std::size_t position = 0;
    EXPECT_THROW(readVarint("\x80\x80", position), std::runtime_error);
    position = 0;
    EXPECT_THROW(readVarint("", position), std::runtime_error);
    position = 0;  // 2^64: the tenth byte carries a second bit
    EXPECT_THROW(readVarint("\x80\x80\x80\x80\x80\x80\x80\x80\x80\x02", position),
                 std::runtime_error);
    position = 0;  // eleven bytes
    EXPECT_THROW(readVarint("\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x00"s, position),
                 std::runtime_error);
}

TEST(RemoteWireCodecTest, RequestsCarryVersionCommandAndThreeStrings) {
    EXPECT_EQ(encodeRequest({RemoteCommand::Exists, "", "", ""}), "\x00\x04\x00\x00\x00"s);
    EXPECT_EQ(encodeRequest({RemoteCommand::Write, "g", "k", ""}), "\x00\x01\x01g\x01k\x00"s);
    const std::string key(200, 'k');
    EXPECT_EQ(encodeRequest({RemoteCommand::Read, "\0"s, key, ""}),
              "\x00\x00\x01\x00\xC8\x01"s + key + "\x00"s);
}

TEST(RemoteWireCodecTest, ResponsesDecodeAndIgnoreTrailingBytes) {
    const RemoteResponse response = decodeResponse("\x00\x01\x03" "a\0b" "trailing"s);
    EXPECT_EQ(response.status, 1);
    EXPECT_EQ(response.payload, "a\0b"s);
    EXPECT_EQ(decodeResponse("\x00\x00\x00"s).payload, "");
}

TEST(RemoteWireCodecTest, ResponsesShorterThanTheirLengthsAreRefused) {
    for (const std::string& body : {""s, "\x00"s, "\x00\x01"s, "\x00\x01\x05" "abc"s,
                                   "\x00\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x01"s}) {
        EXPECT_THROW(decodeResponse(body), std::runtime_error) << testing::PrintToString(body);
    }
}

TEST(RemoteWireCodecTest, OnlyVersionZeroIsUnderstood) {
    try {
        decodeResponse("\x01\x01\x00"s);
        FAIL();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "need VersionConverter implementation");
    }
}

}  // namespace
}  // namespace Quorvendale::StorageClient
