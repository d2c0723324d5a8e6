#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <utility>

#include "Platform/Text/TextConversion.h"
#include "Posix/FileDescriptor.h"
#include "Posix/SystemCall.h"
#include "Storage/FileSystem.h"
#include "Storage/TextMode.h"

namespace Quorvendale::Storage {

namespace {

using Posix::FileDescriptor;

using Platform::utf16ToUtf8;
using Platform::utf8ToUtf16;

// Text with line feeds reaches the file through a buffer of at most this
// size. Large, because every write call to a file also updates its times,
// which costs more than the copy; only the pages used are ever touched.
constexpr std::size_t writeChunkSize = 4 * 1024 * 1024;

// A path as the system calls take it: UTF-8 with a terminating zero. Every
// store operation passes two paths to the system, so those that fit, nearly
// all, are converted into the object itself instead of the heap.
class NativePath {
public:
    explicit NativePath(std::u16string_view path) {
        const std::size_t limit = Platform::utf8SizeLimit(path.size()) + 1;
        char* out = limit <= sizeof(inline_) ? inline_ : (heap_.resize(limit), heap_.data());
        out[utf16ToUtf8(path, out)] = '\0';
        text_ = out;
    }
    NativePath(const NativePath&) = delete;
    NativePath& operator=(const NativePath&) = delete;

    const char* c_str() const { return text_; }

private:
    char inline_[512];
    std::string heap_;
    const char* text_;
};

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = Posix::retryInterrupted([&] { return ::write(fd, data, size); });
        if (written <= 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Writes the value in text mode. A value that storing leaves unchanged goes
// to the file as it is; any other is copied once, into the buffer that adds
// the carriage returns.
bool writeTextMode(int fd, std::string_view value) {
    if (!TextMode::changesOnWrite(value)) return writeAll(fd, value.data(), value.size());
    const std::size_t bufferSize =
        std::min(writeChunkSize, TextMode::encodedSizeLimit(value.size()));
    const auto buffer = std::make_unique_for_overwrite<char[]>(bufferSize);
    while (!value.empty()) {
        const std::size_t used = TextMode::encode(value, buffer.get(), bufferSize);
        if (!writeAll(fd, buffer.get(), used)) return false;
    }
    return true;
}

// One read, repeated only when a signal interrupts it; 0 when it fails.
std::size_t readOnce(int fd, char* buffer, std::size_t size) {
    const ssize_t got = Posix::retryInterrupted([&] { return ::read(fd, buffer, size); });
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

// Reads until `size` bytes are in or a read gives no more. A single read
// may fall short of a regular file's end (Linux reads at most 2 GiB at once),
// so only an empty read ends the file.
std::size_t readUpTo(int fd, char* buffer, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        const std::size_t read = readOnce(fd, buffer + got, size - got);
        if (read == 0) break;
        got += read;
    }
    return got;
}

// A file larger than the first read, sized from its status so that the rest
// comes straight into the result; a file that grows meanwhile is read on to
// its new end. Only a regular file is read on: a device or a pipe
// that is being written could feed the read without end.
std::string readLargeFile(int fd, std::string_view start) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return {};
    // One byte more than the file holds, so that a full buffer shows that the
    // file grew.
    std::size_t room = std::max(static_cast<std::size_t>(status.st_size), start.size()) + 1;
    std::string content;
    content.reserve(room);
    content.append(start);
    for (;; room *= 2) {
        std::size_t size = content.size();
        content.resize_and_overwrite(room, [&](char* buffer, std::size_t) {
            size += readUpTo(fd, buffer + size, room - size);
            return size;
        });
        if (size < room) return content;
    }
}

// Values shorter than this, nearly all, take one read and no status call:
// a regular file gives fewer bytes than asked only at its end.
constexpr std::size_t firstReadSize = 4096;

// The file's bytes as they are. A folder fails the first read and reads as
// empty. A pipe gives at most what it holds at once: the file is open
// without blocking, so no entry can make a read wait.
std::string readAll(int fd) {
    char first[firstReadSize];
    const std::size_t got = readOnce(fd, first, sizeof first);
    if (got < sizeof first) return std::string(first, got);
    return readLargeFile(fd, std::string_view(first, got));
}

// The bytes a value takes in its file: one more for each line feed.
std::uint64_t storedSize(std::string_view value) {
    return value.size() + static_cast<std::uint64_t>(std::count(value.begin(), value.end(), '\n'));
}

// Whether the file, once emptied, can take `size` bytes: the file-size limit
// allows them, and the file system has the blocks free, counting those the
// file gives back when it is emptied. Free blocks are those any user may
// take: a privileged writer may find a little more room than this allows.
// A file system that cannot say how full it is lets the write find out.
bool roomFor(int fd, const struct stat& status, std::uint64_t size) {
    struct rlimit limit {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        size > limit.rlim_cur) {
        return false;
    }
    // The blocks the file gives back take a value no larger than the old:
    // the common overwrite asks the file system nothing.
    const std::uint64_t held = static_cast<std::uint64_t>(status.st_blocks) * 512;
    if (size <= held) return true;
    struct statvfs volume {};
    if (::fstatvfs(fd, &volume) != 0 || volume.f_frsize == 0) return true;
    const std::uint64_t block = volume.f_frsize;
    const std::uint64_t needed = (size + block - 1) / block * block;
    return needed <= static_cast<std::uint64_t>(volume.f_bavail) * block + held;
}

// Empties an existing regular file for its new value, but only once the
// value is known to fit: a write that cannot fit fails with the old value
// intact. What the check cannot foresee (another writer filling the disk
// meanwhile, the host killed mid-write) can still leave the file cut short.
// A pipe or a device is written as it is.
bool emptyForReplacement(int fd, std::string_view value) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) return false;
    if (!S_ISREG(status.st_mode)) return true;
    return roomFor(fd, status, storedSize(value)) && ::ftruncate(fd, 0) == 0;
}

}  // namespace

const char16_t FileSystem::separator = u'/';

bool FileSystem::exists(const std::u16string& path) {
    // Walks the path as stat does, with the same (effective) ids, but fills
    // in nothing: every store operation asks this of its group folder.
    return ::faccessat(AT_FDCWD, NativePath(path).c_str(), F_OK, AT_EACCESS) == 0;
}

bool FileSystem::createFolder(const std::u16string& path) {
    return ::mkdir(NativePath(path).c_str(), 0777) == 0;
}

std::optional<std::vector<std::u16string>> FileSystem::listFolder(const std::u16string& path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(NativePath(path).c_str()),
                                                     &::closedir);
    if (!folder) return std::nullopt;
    std::vector<std::u16string> names;
    while (const dirent* entry = ::readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        names.push_back(utf8ToUtf16(name));
    }
    return names;
}

std::optional<std::string> FileSystem::readText(const std::u16string& path) {
    // Opening first spares the status call whenever the file is there.
    // O_NONBLOCK, which regular files ignore, keeps the open of a pipe from
    // waiting for its other end.
    FileDescriptor file(::open(NativePath(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) return exists(path) ? std::optional<std::string>("") : std::nullopt;
    std::string content = readAll(file.get());
    content.resize(TextMode::decode(content.data(), content.size()));
    return content;
}

bool FileSystem::writeText(const std::u16string& path, std::string_view data) {
    const NativePath native(path);
    FileDescriptor file(::open(native.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.valid()) {
        if (!emptyForReplacement(file.get(), data)) return false;
    } else {
        file.reset(::open(native.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC,
                          0666));
        if (!file.valid()) return false;
    }
    const bool written = writeTextMode(file.get(), data);
    return file.close() && written;
}

bool FileSystem::removeFile(const std::u16string& path) {
    // unlink, unlike remove, never takes a folder.
    return ::unlink(NativePath(path).c_str()) == 0 || !exists(path);
}

}  // namespace Quorvendale::Storage
