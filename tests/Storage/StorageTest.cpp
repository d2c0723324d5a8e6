// BasicStorage over the file system's folders, checked against the bytes
// left on disk. The same cases run on Linux and, under Wine, on Windows,
// where the C runtime's text mode and the system's text conversion are the
// real ones that Linux reproduces.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>

#include "Storage/FolderStorage.h"
#include "Support/TemporaryFolder.h"

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace Quorvendale::Storage {
namespace {

using namespace std::string_literals;

class TemporaryStore final : public FolderStorage {
public:
    explicit TemporaryStore(const std::filesystem::path& root) : root_(root.u16string()) {}
    std::u16string getRootFolder() override { return root_; }

private:
    std::u16string root_;
};

class StorageTest : public testing::Test {
protected:
    // Names and paths in UTF-8 on every platform, as the store has them.
    static std::filesystem::path fromUtf8(const std::string& name) {
        return std::u8string(name.begin(), name.end());
    }
    static std::string utf8(const std::filesystem::path& path) {
        const std::u8string text = path.u8string();
        return {text.begin(), text.end()};
    }

    std::filesystem::path entryPath(const std::string& group, const std::string& key) const {
        return folder_.path() / fromUtf8(group) / fromUtf8(key);
    }

    static std::string errorOf(const std::function<void()>& operation) {
        try {
            operation();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "(no error)";
    }

    Testing::TemporaryFolder folder_;
    TemporaryStore store_{folder_.path()};
};

TEST_F(StorageTest, MissingEntries) {
    EXPECT_EQ(errorOf([&] { store_.read("g", "k"); }),
              "Read file error: file " + utf8(entryPath("g", "k")) + " is not exist");
    EXPECT_TRUE(std::filesystem::is_directory(folder_.path() / "g"));
    store_.remove("g", "k");

    EXPECT_EQ(store_.read("g", "default"), "");
    const std::string aliasError =
        "Read file error: file " + utf8(entryPath("g", ".default")) + " is not exist";
    EXPECT_EQ(errorOf([&] { store_.write("g", "default", "x"); }), aliasError);
    EXPECT_EQ(errorOf([&] { store_.remove("g", "default"); }), aliasError);
}

TEST_F(StorageTest, DefaultIsAnAliasThroughDotDefault) {
    store_.write("g", "k", "value of k");
    store_.write("g", ".default", "k");
    EXPECT_EQ(store_.read("g", "default"), "value of k");
    store_.write("g", "default", "new");
    EXPECT_EQ(Testing::contentOf(entryPath("g", "k")), "new");
    store_.remove("g", "default");
    EXPECT_FALSE(std::filesystem::exists(entryPath("g", "k")));
    EXPECT_EQ(Testing::contentOf(entryPath("g", ".default")), "k");

    // The content is the name verbatim: its newline is part of the key.
    store_.write("g", "k", "value of k");
    store_.write("g", ".default", "k\n");
    EXPECT_EQ(errorOf([&] { store_.read("g", "default"); }),
              "Read file error: file " + utf8(entryPath("g", "k\n")) + " is not exist");
}

TEST_F(StorageTest, NextWalksTheGroupInListingOrder) {
    EXPECT_EQ(store_.next("g", ""), "");
    EXPECT_EQ(errorOf([&] { store_.next("g", "a"); }), "Invalid key");

    for (const char* key : {"a", "b", ".default"}) store_.write("g", key, "a");
    std::filesystem::create_directory(folder_.path() / "g" / "sub");
    const std::vector<std::string> keys = store_.getKeys("g");
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()),
              (std::set<std::string>{"a", "b", ".default", "sub"}));
    std::string key = store_.next("g", "");
    for (const std::string& expected : keys)
        EXPECT_EQ(std::exchange(key, store_.next("g", key)), expected);
    EXPECT_EQ(key, "");
    EXPECT_EQ(errorOf([&] { store_.next("g", "default"); }), "Invalid key");
}

// Windows file names ignore letter case and Linux's do not. A key in other
// letters finds an entry just when the file system does; next() compares
// names byte for byte on both.
TEST_F(StorageTest, LetterCaseIsTheFileSystemsAffair) {
    store_.write("g", "key", "v");
    const bool ignoresCase = std::filesystem::exists(entryPath("g", "KEY"));
    EXPECT_EQ(errorOf([&] { store_.read("g", "KEY"); }),
              ignoresCase
                  ? "(no error)"
                  : "Read file error: file " + utf8(entryPath("g", "KEY")) + " is not exist");
    EXPECT_EQ(errorOf([&] { store_.next("g", "KEY"); }), "Invalid key");
    store_.remove("g", "KEY");
    EXPECT_EQ(std::filesystem::exists(entryPath("g", "key")), !ignoresCase);
}

TEST_F(StorageTest, EntriesThatAreNotFiles) {
    std::filesystem::create_directories(folder_.path() / "g" / "sub");
    EXPECT_EQ(store_.read("g", "sub"), "");
    EXPECT_EQ(errorOf([&] { store_.write("g", "sub", "x"); }), "Write file error");
    EXPECT_EQ(errorOf([&] { store_.remove("g", "sub"); }), "Remove file error");
    EXPECT_TRUE(std::filesystem::is_directory(folder_.path() / "g" / "sub"));
}

TEST_F(StorageTest, NamesAreUtf8UpToTheirFirstZero) {
    const std::string group = "gr\u00FCppe \U0001F600";
    store_.write(group, "\U00010348", "v");
    EXPECT_EQ(Testing::contentOf(entryPath(group, "\U00010348")), "v");
    EXPECT_EQ(store_.next(group, ""), "\U00010348");

    store_.write("g", "k\0ignored"s, "v");
    EXPECT_EQ(store_.read("g", "k"), "v");
    store_.write("g", "bad\xFF", "w");
    EXPECT_EQ(Testing::contentOf(entryPath("g", "bad\uFFFD")), "w");

    // Paths too long to convert on the stack.
    const std::string longName(250, 'n');
    store_.write(longName, longName, "v");
    EXPECT_EQ(store_.read(longName, longName), "v");
}

TEST_F(StorageTest, LargeValuesRoundTrip) {
    // Every third byte of the file is a CR: with any read size but a
    // multiple of 3 a CR LF straddles two reads.
    std::string lines;
    for (int i = 0; i < 3 * 1024 * 1024; ++i) lines += "a\n";
    for (const std::string& value : {lines, std::string(5 * 1024 * 1024 + 17, 'b')}) {
        store_.write("g", "k", value);
        EXPECT_EQ(std::filesystem::file_size(entryPath("g", "k")),
                  value.size() + std::count(value.begin(), value.end(), '\n'));
        EXPECT_TRUE(store_.read("g", "k") == value);
    }
}

TEST_F(StorageTest, GroupFolders) {
    EXPECT_TRUE(store_.getKeys("g").empty());
    EXPECT_TRUE(std::filesystem::is_directory(folder_.path() / "g"));

    EXPECT_EQ(errorOf([&] { store_.write("a/b", "k", "v"); }), "Write file error");
    EXPECT_EQ(errorOf([&] { store_.getKeys("a/b"); }), "Failed to open folder: a/b");
    store_.write("a", "k", "v");
    store_.write("a/b", "k", "v");
    EXPECT_EQ(Testing::contentOf(entryPath("a/b", "k")), "v");
}

#ifndef _WIN32
// A pipe must never make the store wait, with or without a writer, nor feed
// it without end: it gives what one read finds, below 4 KiB.
TEST_F(StorageTest, PipesNeverMakeTheStoreWait) {
    store_.getKeys("g");
    ASSERT_EQ(::mkfifo(entryPath("g", "pipe").c_str(), 0600), 0);
    EXPECT_EQ(store_.read("g", "pipe"), "");
    EXPECT_EQ(errorOf([&] { store_.write("g", "pipe", "x"); }), "Write file error");
    const int writer = ::open(entryPath("g", "pipe").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    EXPECT_EQ(store_.read("g", "pipe"), "");
    ASSERT_EQ(::write(writer, "a\r\nb", 4), 4);
    EXPECT_EQ(store_.read("g", "pipe"), "a\nb");
    const std::string plenty(8192, 'x');
    ASSERT_EQ(::write(writer, plenty.data(), plenty.size()), static_cast<ssize_t>(plenty.size()));
    EXPECT_EQ(store_.read("g", "pipe"), "");
    ::close(writer);
}

#endif

}  // namespace
}  // namespace Quorvendale::Storage
