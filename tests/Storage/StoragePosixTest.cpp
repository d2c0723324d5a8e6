// What only a POSIX file system has among a group's entries: named pipes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "StorageTest.h"

namespace Quorvendale::Storage {
namespace {

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

}  // namespace
}  // namespace Quorvendale::Storage
