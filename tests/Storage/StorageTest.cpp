// BasicStorage through its one concrete store, UwpStorage, rooted in a
// temporary package folder, checked against the bytes left on disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <thread>
#include <utility>

#include "Platform/HResultError.h"
#include "Storage/UwpStorage.h"
#include "Support/PackageFolder.h"

namespace Quorvendale::Storage {
namespace {

using namespace std::string_literals;

class StorageTest : public testing::Test {
protected:
    std::filesystem::path entryPath(const std::string& group, const std::string& key) const {
        return package_.localState() / group / key;
    }

    static std::string fileBytes(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static std::string errorOf(const std::function<void()>& operation) {
        try {
            operation();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "(no error)";
    }

    Testing::PackageFolder package_;
    UwpStorage store_;
};

TEST_F(StorageTest, MissingEntries) {
    EXPECT_EQ(errorOf([&] { store_.read("g", "k"); }),
              "Read file error: file " + entryPath("g", "k").string() + " is not exist");
    EXPECT_TRUE(std::filesystem::is_directory(package_.localState() / "g"));
    store_.remove("g", "k");

    // An unset alias reads as empty but cannot be written or removed.
    EXPECT_EQ(store_.read("g", "default"), "");
    const std::string aliasError =
        "Read file error: file " + entryPath("g", ".default").string() + " is not exist";
    EXPECT_EQ(errorOf([&] { store_.write("g", "default", "x"); }), aliasError);
    EXPECT_EQ(errorOf([&] { store_.remove("g", "default"); }), aliasError);
}

TEST_F(StorageTest, DefaultIsAnAliasThroughDotDefault) {
    store_.write("g", "k", "value of k");
    store_.write("g", ".default", "k");
    EXPECT_EQ(store_.read("g", "default"), "value of k");
    store_.write("g", "default", "new");
    EXPECT_EQ(fileBytes(entryPath("g", "k")), "new");
    store_.remove("g", "default");
    EXPECT_FALSE(std::filesystem::exists(entryPath("g", "k")));
    EXPECT_EQ(fileBytes(entryPath("g", ".default")), "k");

    // The content is the name verbatim: its newline is part of the key.
    store_.write("g", ".default", "k\n");
    store_.write("g", "default", "x");
    EXPECT_EQ(fileBytes(entryPath("g", "k\n")), "x");
}

TEST_F(StorageTest, NextWalksTheGroupInListingOrder) {
    EXPECT_EQ(store_.next("g", ""), "");
    EXPECT_EQ(errorOf([&] { store_.next("g", "a"); }), "Invalid key");

    for (const char* key : {"a", "b", ".default"}) store_.write("g", key, "a");
    std::filesystem::create_directory(package_.localState() / "g" / "sub");
    const std::vector<std::string> keys = store_.getKeys("g");
    EXPECT_EQ(std::set<std::string>(keys.begin(), keys.end()),
              (std::set<std::string>{"a", "b", ".default", "sub"}));
    std::string key = store_.next("g", "");
    for (const std::string& expected : keys)
        EXPECT_EQ(std::exchange(key, store_.next("g", key)), expected);
    EXPECT_EQ(key, "");
    EXPECT_EQ(errorOf([&] { store_.next("g", "default"); }), "Invalid key");
}

TEST_F(StorageTest, EntriesThatAreNotFiles) {
    std::filesystem::create_directories(package_.localState() / "g" / "sub");
    EXPECT_EQ(store_.read("g", "sub"), "");
    EXPECT_EQ(errorOf([&] { store_.write("g", "sub", "x"); }), "Write file error");
    EXPECT_EQ(errorOf([&] { store_.remove("g", "sub"); }), "Remove file error");
    EXPECT_TRUE(std::filesystem::is_directory(package_.localState() / "g" / "sub"));

    // A pipe must never make the store wait, with or without a writer, nor
    // feed it without end: it gives what one read finds, below 4 KiB.
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

TEST_F(StorageTest, NamesAreUtf8UpToTheirFirstZero) {
    const std::string group = "gr\u00FCppe \U0001F600";
    store_.write(group, "\U00010348", "v");
    EXPECT_EQ(fileBytes(entryPath(group, "\U00010348")), "v");
    EXPECT_EQ(store_.next(group, ""), "\U00010348");

    store_.write("g", "k\0ignored"s, "v");
    EXPECT_EQ(store_.read("g", "k"), "v");
    store_.write("g", "bad\xFF", "w");
    EXPECT_EQ(fileBytes(entryPath("g", "bad\uFFFD")), "w");

    // Paths too long to convert on the stack.
    const std::string longName(250, 'n');
    store_.write(longName, longName, "v");
    EXPECT_EQ(store_.read(longName, longName), "v");
}

TEST_F(StorageTest, TextMode) {
    store_.write("g", "k", "a\nb");
    EXPECT_EQ(fileBytes(entryPath("g", "k")), "a\r\nb");
    EXPECT_EQ(store_.read("g", "k"), "a\nb");

    // A lone CR is kept both ways, so a CR before an LF (stored as CR CR LF)
    // comes back too; 0x1A ends the content.
    store_.write("g", "k", "\r\n|\r|x\r");
    EXPECT_EQ(fileBytes(entryPath("g", "k")), "\r\r\n|\r|x\r");
    EXPECT_EQ(store_.read("g", "k"), "\r\n|\r|x\r");
    store_.write("g", "k", "x\r\x1A\n");
    EXPECT_EQ(store_.read("g", "k"), "x\r");
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
    EXPECT_TRUE(std::filesystem::is_directory(package_.localState() / "g"));

    // Only the last level is made.
    EXPECT_EQ(errorOf([&] { store_.write("a/b", "k", "v"); }), "Write file error");
    EXPECT_EQ(errorOf([&] { store_.getKeys("a/b"); }), "Failed to open folder: a/b");
    store_.write("a", "k", "v");
    store_.write("a/b", "k", "v");
    EXPECT_EQ(fileBytes(entryPath("a/b", "k")), "v");

    Testing::ScopedEnvironment noPackage("QUORVENDALE_PACKAGE_FAMILY_NAME", nullptr);
    EXPECT_THROW(store_.read("g", "k"), Platform::HResultError);
}

// Meant for the sanitizer builds: the one instance serves threads at once.
TEST_F(StorageTest, ThreadsShareTheInstance) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([t] {
            const std::string key = "key" + std::to_string(t);
            for (int round = 0; round < 40; ++round) {
                const std::string value = key + "\nround " + std::to_string(round);
                UwpStorage::instance().write("shared", key, value);
                EXPECT_EQ(UwpStorage::instance().read("shared", key), value);
                UwpStorage::instance().next("shared", key);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(UwpStorage::instance().getKeys("shared").size(), 6u);
}

}  // namespace
}  // namespace Quorvendale::Storage
