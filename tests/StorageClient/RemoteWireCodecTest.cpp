#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "StorageClient/RemoteWireCodec.h"

namespace Quorvendale::StorageClient {
namespace {

using namespace std::string_literals;

TEST(RemoteWireCodecTest, VarintsRoundTripAndRefuseWhatDoesNotFit) {
    for (const std::uint64_t value : {std::uint64_t{0}, std::uint64_t{300}, std::uint64_t{1} << 35,
                                      std::numeric_limits<std::uint64_t>::max()}) {
        std::string bytes;
        appendVarint(bytes, value);
        std::size_t position = 0;
        EXPECT_EQ(readVarint(bytes, position), value);
        EXPECT_EQ(position, bytes.size());
    }
    // Ends inside the varint; 2^64; eleven bytes.
    for (const std::string& bytes : {"\x80\x80"s, "\x80\x80\x80\x80\x80\x80\x80\x80\x80\x02"s,
                                     "\x80\x80\x80\x80\x80\x80\x80\x80\x80\x80\x00"s}) {
        std::size_t position = 0;
        EXPECT_THROW(readVarint(bytes, position), std::runtime_error);
    }
}

TEST(RemoteWireCodecTest, ResponsesDecodeOnlyWithinTheirBody) {
    const RemoteResponse response = decodeResponse(
        "\x00\x01\x03"
        "a\0b"
        "ignored"s);
    EXPECT_EQ(response.status, 1);
    EXPECT_EQ(response.payload, "a\0b"s);
    for (const std::string& body : {""s, "\x00\x01"s,
                                    "\x00\x01\x05"
                                    "abc"s,
                                    "\x00\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x01"s}) {
        EXPECT_THROW(decodeResponse(body), std::runtime_error) << testing::PrintToString(body);
    }
}

}  // namespace
}  // namespace Quorvendale::StorageClient
