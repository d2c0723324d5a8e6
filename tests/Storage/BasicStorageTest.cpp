#include "Storage/BasicStorage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "Platform/TextConversion.h"
#include "StorageTest.h"

namespace Quorvendale::Storage {
namespace {

using namespace std::string_literals;

using BasicStorageTest = StorageTest;

TEST_F(BasicStorageTest, WrittenValueReadsBackAndRemoveDeletesIt) {
    store_.write("g", "k", "value");
    EXPECT_EQ(fileBytes(entryPath("g", "k")), "value");
    EXPECT_EQ(store_.read("g", "k"), "value");
    store_.write("g", "k", "v2");
    EXPECT_EQ(store_.read("g", "k"), "v2");

    store_.remove("g", "k");
    EXPECT_FALSE(std::filesystem::exists(entryPath("g", "k")));
    store_.remove("g", "k");  // a missing key is no error
}

TEST_F(BasicStorageTest, MissingKeyReadNamesTheFullPath) {
    EXPECT_EQ(errorOf([&] { store_.read("g", "k"); }),
              "Read file error: file " + entryPath("g", "k").string() + " is not exist");
    // Every operation makes the group folder, even one that fails.
    EXPECT_TRUE(std::filesystem::is_directory(package_.localState() / "g"));
}

TEST_F(BasicStorageTest, DefaultWithoutAliasReadsEmptyButCannotBeWritten) {
    EXPECT_EQ(store_.read("g", "default"), "");
    EXPECT_EQ(errorOf([&] { store_.write("g", "default", "x"); }),
              "Read file error: file " + entryPath("g", ".default").string() + " is not exist");
    EXPECT_EQ(errorOf([&] { store_.remove("g", "default"); }),
              "Read file error: file " + entryPath("g", ".default").string() + " is not exist");
}

TEST_F(BasicStorageTest, DefaultIsAnAliasThroughDotDefault) {
    store_.write("g", "k", "value of k");
    store_.write("g", ".default", "k");
    EXPECT_EQ(store_.read("g", "default"), "value of k");

    store_.write("g", "default", "new");
    EXPECT_EQ(fileBytes(entryPath("g", "k")), "new");

    store_.remove("g", "default");
    EXPECT_FALSE(std::filesystem::exists(entryPath("g", "k")));
    EXPECT_EQ(fileBytes(entryPath("g", ".default")), "k");
    // Only the exact word is the alias.
    EXPECT_EQ(Platform::utf16ToUtf8(store_.getFilePath("g", "Default")),
              entryPath("g", "Default").string());
}

TEST_F(BasicStorageTest, AliasContentIsTheKeyVerbatim) {
    // Stored as "k\r\n", read back as "k\n": the newline is part of the name.
    store_.write("g", ".default", "k\n");
    store_.write("g", "default", "x");
    EXPECT_EQ(fileBytes(entryPath("g", "k\n")), "x");
}

TEST_F(BasicStorageTest, NextWalksTheGroupInListingOrder) {
    EXPECT_EQ(store_.next("g", ""), "");
    EXPECT_EQ(errorOf([&] { store_.next("g", "a"); }), "Invalid key");

    store_.write("g", "a", "1");
    store_.write("g", "b", "2");
    store_.write("g", ".default", "a");
    std::filesystem::create_directory(package_.localState() / "g" / "sub");

    const std::vector<std::string> keys = store_.getKeys("g");
    std::vector<std::string> walked;
    for (std::string key = store_.next("g", ""); !key.empty(); key = store_.next("g", key)) {
        walked.push_back(key);
        ASSERT_LE(walked.size(), keys.size());
    }
    EXPECT_EQ(walked, keys);
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()),
              (std::set<std::string>{"a", "b", ".default", "sub"}));
    EXPECT_EQ(errorOf([&] { store_.next("g", "A"); }), "Invalid key");
    EXPECT_EQ(errorOf([&] { store_.next("g", "default"); }), "Invalid key");
}

TEST_F(BasicStorageTest, KeyNamingASubFolder) {
    std::filesystem::create_directories(package_.localState() / "g" / "sub");
    EXPECT_EQ(store_.read("g", "sub"), "");
    EXPECT_EQ(errorOf([&] { store_.write("g", "sub", "x"); }), "Write file error");
    EXPECT_EQ(errorOf([&] { store_.remove("g", "sub"); }), "Remove file error");
    EXPECT_TRUE(std::filesystem::is_directory(package_.localState() / "g" / "sub"));
}

TEST_F(BasicStorageTest, NamesAreUtf8UpToTheirFirstZero) {
    const std::string group = "gr\u00FCppe \U0001F600";
    const std::string key = "\U00010348 key";
    store_.write(group, key, "v");
    EXPECT_EQ(fileBytes(entryPath(group, key)), "v");
    EXPECT_EQ(store_.next(group, ""), key);

    store_.write("g", "k\0ignored"s, "v");
    EXPECT_EQ(store_.read("g"s, "k"), "v");
    // Invalid UTF-8 is stored under the replacement character's name.
    store_.write("g", "bad\xFF", "w");
    EXPECT_EQ(fileBytes(entryPath("g", "bad\uFFFD")), "w");
}

TEST_F(BasicStorageTest, TextModeTranslatesLineEnds) {
    store_.write("g", "k", "a\nb");
    EXPECT_EQ(fileBytes(entryPath("g", "k")), "a\r\nb");
    EXPECT_EQ(store_.read("g", "k"), "a\nb");

    // A lone CR is kept both ways, at the end too; so a CR before an LF,
    // stored as CR CR LF, also comes back.
    store_.write("g", "k", "\r\n|\r|x\r");
    EXPECT_EQ(fileBytes(entryPath("g", "k")), "\r\r\n|\r|x\r");
    EXPECT_EQ(store_.read("g", "k"), "\r\n|\r|x\r");
}

TEST_F(BasicStorageTest, ByteOneAEndsTheContentOnRead) {
    store_.write("g", "k",
                 "ab\x1A"
                 "cd\n");
    EXPECT_EQ(fileBytes(entryPath("g", "k")),
              "ab\x1A"
              "cd\r\n");
    EXPECT_EQ(store_.read("g", "k"), "ab");
    putFile(entryPath("g", "k"), "x\r\x1A\n");
    EXPECT_EQ(store_.read("g", "k"), "x\r");
}

TEST_F(BasicStorageTest, LargeValuesRoundTrip) {
    // Stored as "a\r\n" over and over: every third byte is a CR, so with any
    // read chunk size but a multiple of 3 some chunk ends between a CR and
    // its LF.
    std::string lines;
    for (int i = 0; i < 3 * 1024 * 1024; ++i) lines += "a\n";
    store_.write("g", "lines", lines);
    EXPECT_EQ(std::filesystem::file_size(entryPath("g", "lines")),
              lines.size() + std::count(lines.begin(), lines.end(), '\n'));
    EXPECT_TRUE(store_.read("g", "lines") == lines);

    std::string binary(5 * 1024 * 1024 + 17, '\0');
    for (std::size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>((i * 131) % 251);
    std::erase(binary, '\x1A');
    std::erase(binary, '\r');
    store_.write("g", "binary", binary);
    EXPECT_TRUE(store_.read("g", "binary") == binary);
}

}  // namespace
}  // namespace Quorvendale::Storage
