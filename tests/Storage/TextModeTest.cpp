// The text-mode byte rules on their own, around the block sizes of the
// vector scan, where its off-by-one faults would hide.
#include "Storage/TextMode.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace Quorvendale::Storage {
namespace {

using namespace std::string_literals;

std::string decoded(std::string stored) {
    stored.resize(TextMode::decode(stored.data(), stored.size()));
    return stored;
}

std::string encodedInPieces(std::string_view value, std::size_t room) {
    std::string stored;
    std::string piece(room, '\0');
    while (!value.empty()) stored.append(piece.data(), TextMode::encode(value, piece.data(), room));
    return stored;
}

TEST(TextMode, BothScansFindTheFirstMarkAnywhere) {
    for (std::size_t size = 1; size <= 300; ++size) {
        for (std::size_t at = 0; at <= size; ++at) {
            for (const char mark : {'\r', '\x1A'}) {
                std::string bytes(size, 'a');
                if (at < size) bytes[at] = mark;
                if (at + 1 < size) bytes[size - 1] = '\r';
                const char* const begin = bytes.data();
                const char* const end = begin + size;
                ASSERT_EQ(TextMode::findMark(begin, end), begin + at) << size;
                ASSERT_EQ(TextMode::findMarkPortable(begin, end), begin + at) << size;
            }
        }
    }
}

TEST(TextMode, Decode) {
    EXPECT_EQ(decoded(""), "");
    EXPECT_EQ(decoded("a\r\nb"), "a\nb");
    EXPECT_EQ(decoded("\r\r\n\r"), "\r\n\r");
    EXPECT_EQ(decoded("x\r\x1A\n"), "x\r");
    EXPECT_EQ(decoded("\x1A\r\n"), "");
    EXPECT_EQ(decoded("\0\r\n\0"s), "\0\n\0"s);

    // Line ends around the scan's blocks: what follows moves down by one.
    for (std::size_t at = 0; at + 1 < 300; ++at) {
        std::string stored(300, 'a');
        stored.replace(at, 2, "\r\n");
        std::string value(299, 'a');
        value[at] = '\n';
        ASSERT_EQ(decoded(stored), value) << at;
    }
}

TEST(TextMode, EncodeInPiecesOfAnySize) {
    const std::string value = "a\nb\n\n\r\nc";
    EXPECT_TRUE(TextMode::changesOnWrite(value));
    EXPECT_FALSE(TextMode::changesOnWrite("a\rb"));
    for (std::size_t room = 2; room <= TextMode::encodedSizeLimit(value.size()); ++room) {
        EXPECT_EQ(encodedInPieces(value, room), "a\r\nb\r\n\r\n\r\r\nc") << room;
    }
}

}  // namespace
}  // namespace Quorvendale::Storage
