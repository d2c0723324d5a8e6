#include "Storage/UwpStorage.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "Platform/HResultError.h"
#include "StorageTest.h"

namespace Quorvendale::Storage {
namespace {

using UwpStorageTest = StorageTest;

TEST_F(UwpStorageTest, NewGroupGetsAnEmptyFolder) {
    EXPECT_TRUE(store_.getKeys("g").empty());
    EXPECT_TRUE(std::filesystem::is_directory(package_.localState() / "g"));
}

TEST_F(UwpStorageTest, OnlyTheLastLevelOfAGroupIsCreated) {
    EXPECT_EQ(errorOf([&] { store_.write("a/b", "k", "v"); }), "Write file error");
    EXPECT_EQ(errorOf([&] { store_.getKeys("a/b"); }), "Failed to open folder: a/b");
    EXPECT_FALSE(std::filesystem::exists(package_.localState() / "a"));

    store_.write("a", "k", "v");
    store_.write("a/b", "k", "v");
    EXPECT_EQ(fileBytes(entryPath("a/b", "k")), "v");
}

TEST_F(UwpStorageTest, RootFollowsThePackageIdentity) {
    Testing::ScopedEnvironment noPackage("QUORVENDALE_PACKAGE_FAMILY_NAME", nullptr);
    EXPECT_THROW(store_.read("g", "k"), Platform::HResultError);
}

// Run under the sanitizer builds: the shared instance must serve threads at
// once with no data race.
TEST_F(UwpStorageTest, ThreadsShareTheInstance) {
    UwpStorage& storage = UwpStorage::instance();
    EXPECT_EQ(&storage, &UwpStorage::instance());

    constexpr int threadCount = 6;
    constexpr int rounds = 40;
    std::vector<std::string> failures(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] {
            const std::string key = "key" + std::to_string(t);
            for (int round = 0; round < rounds && failures[t].empty(); ++round) {
                const std::string value = key + " round " + std::to_string(round) + "\n";
                try {
                    UwpStorage::instance().write("shared", key, value);
                    if (UwpStorage::instance().read("shared", key) != value)
                        failures[t] = "wrong value";
                    UwpStorage::instance().next("shared", key);
                } catch (const std::exception& error) {
                    failures[t] = error.what();
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::string& failure : failures) EXPECT_EQ(failure, "");
    EXPECT_EQ(storage.getKeys("shared").size(), static_cast<std::size_t>(threadCount));
}

}  // namespace
}  // namespace Quorvendale::Storage
