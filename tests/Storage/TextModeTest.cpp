// The text-mode byte rules on their own, around the block sizes of the
// vector decoder, where its off-by-one faults would hide.
#include "Storage/TextMode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <string_view>

#include "Storage/FileSystem.h"
#include "Support/TemporaryFolder.h"
#include "Support/TextModeRules.h"

namespace Quorvendale::Storage {
namespace {

std::string encodedInPieces(std::string_view value, std::size_t room) {
    std::string stored;
    std::string piece(room, '\0');
    while (!value.empty()) stored.append(piece.data(), TextMode::encode(value, piece.data(), room));
    return stored;
}

// Both ways of decoding, with a mark at every place around the blocks and
// a later line end that must not be taken for it.
TEST(TextMode, MarksAnywhere) {
    for (std::size_t size = 1; size <= 300; ++size) {
        for (std::size_t at = 0; at < size; ++at) {
            for (const std::string_view mark : {"\x1A", "\r", "\r\n"}) {
                std::string stored(size, 'a');
                stored.replace(at, std::min(mark.size(), size - at), mark.substr(0, size - at));
                if (at + 4 < size) stored.replace(size - 2, 2, "\r\n");
                const std::string value = Testing::decodedByteByByte(stored);
                for (const auto decode : {TextMode::decode, TextMode::decodePortable}) {
                    std::string bytes = stored;
                    bytes.resize(decode(bytes.data(), bytes.size()));
                    ASSERT_EQ(bytes, value) << size << " " << at;
                }
            }
        }
    }
}

// Once some 31 line ends are dropped, the vector decoder moves whole blocks
// down over bytes it has read: lines of every length up to well past a block,
// with lone CRs among them, then a 0x1A.
TEST(TextMode, ManyLines) {
    std::string stored;
    for (std::size_t line = 0; line < 400; ++line) {
        stored.append(line % 97, static_cast<char>('a' + line % 26));
        stored += line % 7 == 0 ? "\r" : "\r\n";
    }
    for (const std::size_t end : {stored.size(), stored.size() / 2}) {
        std::string withEnd = stored;
        withEnd.insert(end, "\x1A tail\r\n");
        for (const auto decode : {TextMode::decode, TextMode::decodePortable}) {
            std::string bytes = withEnd;
            bytes.resize(decode(bytes.data(), bytes.size()));
            ASSERT_EQ(bytes, Testing::decodedByteByByte(withEnd)) << end;
        }
    }
}

// The rules against the platform's own files, which on Windows are the C
// runtime's own text mode: marks just before the edges of its 4 KiB reads,
// where a CR LF falls apart, and at the very end.
TEST(TextMode, FilesFollowTheRules) {
    const Testing::TemporaryFolder folder;
    const std::u16string path = (folder.path() / "entry").u16string();
    for (const std::size_t size : {4096, 4097, 8192, 8194}) {
        for (std::size_t at = size - 3; at < size; ++at) {
            for (const std::string_view mark : {"\r\n", "\r", "\x1A", "\r\x1A", "\r\r\n"}) {
                std::string stored(size, 'a');
                stored.replace(at, std::min(mark.size(), size - at), mark.substr(0, size - at));
                std::ofstream(folder.path() / "entry", std::ios::binary) << stored;
                ASSERT_EQ(Storage::FileSystem::readText(path), Testing::decodedByteByByte(stored))
                    << size << " " << at << " " << testing::PrintToString(mark);

                // Writing puts a CR before each LF and nothing else.
                std::string value = stored;
                std::replace(value.begin(), value.end(), '\r', '\n');
                std::string expected;
                for (const char byte : value)
                    expected += byte == '\n' ? "\r\n" : std::string(1, byte);
                ASSERT_TRUE(Storage::FileSystem::writeText(path, value));
                ASSERT_EQ(Testing::contentOf(folder.path() / "entry"), expected);
            }
        }
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
