// The text-mode byte rules, held to their plainest form (TextModeRules.h):
// every decoder the processor runs around the block sizes of the vector ones,
// where their off-by-one faults would hide, and the platform's own files, which on
// Windows are the C runtime's own text mode.
#include "Storage/TextMode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "Storage/FileSystem.h"
#include "Support/TemporaryFolder.h"
#include "Support/TextModeRules.h"

namespace Quorvendale::Storage {

namespace TextMode {
// Names the path in each test's name rather than its bytes.
void PrintTo(const Decoder& decoder, std::ostream* out) { *out << decoder.name; }
}  // namespace TextMode

namespace {

// `stored` with `mark` put at `at`, cut at the end.
std::string marked(std::size_t size, std::size_t at, std::string_view mark) {
    std::string stored(size, 'a');
    stored.replace(at, std::min(mark.size(), size - at), mark.substr(0, size - at));
    return stored;
}

std::string decodedBy(TextMode::Decoder decoder, std::string stored) {
    stored.resize(decoder.decode(stored.data(), stored.size()));
    return stored;
}

// Each decoder this processor runs, named in the test's name, against the
// portable one byte for byte and both against the rules.
class TextModeDecoder : public testing::TestWithParam<TextMode::Decoder> {
protected:
    static testing::AssertionResult decodesByTheRules(const std::string& stored) {
        std::string portable = stored;
        portable.resize(TextMode::decodePortable(portable.data(), portable.size()));
        if (decodedBy(GetParam(), stored) != portable ||
            portable != Testing::decodedByteByByte(stored)) {
            return testing::AssertionFailure() << testing::PrintToString(stored);
        }
        return testing::AssertionSuccess();
    }
};

INSTANTIATE_TEST_SUITE_P(EveryPath, TextModeDecoder, testing::ValuesIn(TextMode::decoders()),
                         [](const auto& path) { return std::string(path.param.name); });

// A mark at every place around the blocks, with a later line end that must
// not be taken for it; then after 70 line ends, once the value has moved down
// far enough for the vector decoders to take whole chunks, with the mark in
// every place of the chunks taken.
TEST_P(TextModeDecoder, MarksAnywhere) {
    struct Cases {
        std::size_t lineEnds, smallest, largest;
    };
    for (const auto [lineEnds, smallest, largest] : {Cases{0, 1, 300}, Cases{70, 100, 200}}) {
        std::string lines;
        for (std::size_t i = 0; i < lineEnds; ++i) lines += "\r\n";
        for (std::size_t size = smallest; size <= largest; ++size) {
            for (std::size_t at = 0; at < size; ++at) {
                for (const std::string_view mark : {"\x1A", "\r", "\r\n"}) {
                    std::string stored = marked(size, at, mark);
                    if (at + 4 < size) stored.replace(size - 2, 2, "\r\n");
                    ASSERT_TRUE(decodesByTheRules(lines + stored));
                }
            }
        }
    }
}

// Once some 31 line ends are dropped, the vector decoders move whole blocks
// down over bytes they have read: lines of every length up to well past a
// block, with lone CRs among them, then a 0x1A.
TEST_P(TextModeDecoder, ManyLines) {
    std::string stored;
    for (std::size_t line = 0; line < 400; ++line) {
        stored.append(line % 97, static_cast<char>('a' + line % 26));
        stored += line % 7 == 0 ? "\r" : "\r\n";
    }
    for (const std::size_t end : {stored.size(), stored.size() / 2}) {
        ASSERT_TRUE(decodesByTheRules(std::string(stored).insert(end, "\x1A tail\r\n")));
    }
}

// decode takes the fastest path unless QV_TEXT_DECODER names another.
TEST(TextMode, DecodesWithTheChosenPath) {
    const char* const forced = std::getenv("QV_TEXT_DECODER");
    const auto supported = TextMode::decoders();
    const bool known = forced && std::ranges::find(supported, std::string_view(forced),
                                                   &TextMode::Decoder::name) != supported.end();
    EXPECT_EQ(TextMode::decoderInUse().name, known ? forced : supported.front().name);
    EXPECT_EQ(TextMode::decoders().back().name, "portable");
    std::string stored = "a\r\nb\x1A";
    stored.resize(TextMode::decode(stored.data(), stored.size()));
    EXPECT_EQ(stored, "a\nb");
}

// Marks just before the edges of the C runtime's 4 KiB reads, where a CR LF
// falls apart, and at the very end. Writing puts a CR before each LF and
// changes nothing else, so a value without 0x1A reads back as it was, lone
// CRs and CRs before an LF among it.
TEST(TextMode, FilesFollowTheRules) {
    const Testing::TemporaryFolder folder;
    const std::u16string path = (folder / "entry").u16string();
    for (const std::size_t size : {4096, 4097, 8192, 8194}) {
        for (std::size_t at = size - 3; at < size; ++at) {
            for (const std::string_view mark : {"\r\n", "\r", "\x1A", "\r\x1A", "\r\r\n", "\n"}) {
                const std::string value = marked(size, at, mark);
                std::ofstream(folder / "entry", std::ios::binary) << value;
                ASSERT_EQ(FileSystem::readText(path), Testing::decodedByteByByte(value))
                    << size << " " << at << " " << testing::PrintToString(mark);

                std::string expected;
                for (const char byte : value)
                    expected += byte == '\n' ? "\r\n" : std::string(1, byte);
                ASSERT_TRUE(FileSystem::writeText(path, value));
                ASSERT_EQ(Testing::contentOf(folder / "entry"), expected);
                if (mark.find('\x1A') == std::string_view::npos) {
                    ASSERT_EQ(FileSystem::readText(path), value);
                }
            }
        }
    }
}

TEST(TextMode, EncodeInPiecesOfAnySize) {
    const std::string value = "a\nb\n\n\r\nc";
    EXPECT_TRUE(TextMode::changesOnWrite(value));
    EXPECT_FALSE(TextMode::changesOnWrite("a\rb"));
    for (std::size_t room = 2; room <= TextMode::encodedSizeLimit(value.size()); ++room) {
        std::string stored, piece(room, '\0');
        for (std::string_view rest = value; !rest.empty();) {
            stored.append(piece.data(), TextMode::encode(rest, piece.data(), room));
        }
        EXPECT_EQ(stored, "a\r\nb\r\n\r\n\r\r\nc") << room;
    }
}

}  // namespace
}  // namespace Quorvendale::Storage
