#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "Platform/TextConversion.h"
#include "Storage/FileSystem.h"

namespace Quorvendale::Storage {

namespace {

using Platform::utf16ToUtf8;
using Platform::utf8ToUtf16;

constexpr char carriageReturn = '\r';
constexpr char lineFeed = '\n';
constexpr char endOfText = '\x1A';

// Text with line feeds reaches the file through a buffer of at most this
// size. Large, because every write call to a file also updates its times,
// which costs more than the copy; only the pages used are ever touched.
constexpr std::size_t writeChunkSize = 4 * 1024 * 1024;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes now and tells whether the close succeeded: a write may only
    // fail at the close.
    bool close() { return ::close(std::exchange(fd_, -1)) == 0; }

private:
    int fd_;
};

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Writes data with every LF as CR LF. Data without a line feed goes to the
// file as it is; other data is copied once, into the buffer that adds the CRs.
bool writeTextMode(int fd, std::string_view data) {
    if (data.find(lineFeed) == std::string_view::npos)
        return writeAll(fd, data.data(), data.size());
    const std::size_t bufferSize = std::min(writeChunkSize, 2 * data.size());
    const auto buffer = std::make_unique_for_overwrite<char[]>(bufferSize);
    std::size_t used = 0;
    while (!data.empty()) {
        if (used + 2 > bufferSize) {
            if (!writeAll(fd, buffer.get(), used)) return false;
            used = 0;
        }
        const std::size_t take = std::min(bufferSize - used - 1, data.size());  // room for a CR
        const void* found = std::memchr(data.data(), lineFeed, take);
        const std::size_t run = found ? static_cast<const char*>(found) - data.data() : take;
        std::memcpy(buffer.get() + used, data.data(), run);
        used += run;
        if (found) {
            buffer[used++] = carriageReturn;
            buffer[used++] = lineFeed;
        }
        data.remove_prefix(found ? run + 1 : run);
    }
    return writeAll(fd, buffer.get(), used);
}

// The file's bytes as they are. Reads straight into the result, sized from
// the file's status; a file that grows meanwhile is read to its new end.
// Only a regular file has content: a folder, a pipe or a device reads as
// empty, so that no entry can block a read or feed it without end.
std::string readAll(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return {};
    // One byte more than the file holds, so that a single read both fills it
    // and, falling short, shows that the end was reached.
    std::string content(static_cast<std::size_t>(status.st_size) + 1, '\0');
    std::size_t size = 0;
    for (;;) {
        if (size == content.size()) content.resize(2 * content.size());
        const ssize_t got = ::read(fd, content.data() + size, content.size() - size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        size += static_cast<std::size_t>(got);
        // A regular file gives fewer bytes than asked only at its end.
        if (size < content.size()) break;
    }
    content.resize(size);
    return content;
}

// Turns the file's bytes into the value, in place: the content ends at the
// first 0x1A, and each CR LF becomes LF. Runs between CRs move down at most
// once, and not at all in a value without CR LF.
void translateTextMode(std::string& content) {
    content.resize(std::min(content.find(endOfText), content.size()));
    std::size_t kept = 0;
    for (std::size_t from = 0;;) {
        const std::size_t cr = content.find(carriageReturn, from);
        const bool dropped =
            cr != std::string::npos && cr + 1 < content.size() && content[cr + 1] == lineFeed;
        const std::size_t runEnd =
            cr == std::string::npos ? content.size() : (dropped ? cr : cr + 1);
        if (kept != from) std::memmove(content.data() + kept, content.data() + from, runEnd - from);
        kept += runEnd - from;
        if (cr == std::string::npos) break;
        from = cr + 1;
    }
    content.resize(kept);
}

}  // namespace

bool FileSystem::exists(const std::u16string& path) {
    // Walks the path as stat does, with the same (effective) ids, but fills
    // in nothing: every store operation asks this of its group folder.
    return ::faccessat(AT_FDCWD, utf16ToUtf8(path).c_str(), F_OK, AT_EACCESS) == 0;
}

bool FileSystem::createFolder(const std::u16string& path) {
    return ::mkdir(utf16ToUtf8(path).c_str(), 0777) == 0;
}

std::optional<std::vector<std::u16string>> FileSystem::listFolder(const std::u16string& path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(utf16ToUtf8(path).c_str()),
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
    FileDescriptor file(::open(utf16ToUtf8(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) return exists(path) ? std::optional<std::string>("") : std::nullopt;
    std::string content = readAll(file.get());
    translateTextMode(content);
    return content;
}

bool FileSystem::writeText(const std::u16string& path, std::string_view data) {
    FileDescriptor file(::open(utf16ToUtf8(path).c_str(),
                               O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666));
    if (!file.valid()) return false;
    const bool written = writeTextMode(file.get(), data);
    return file.close() && written;
}

bool FileSystem::removeFile(const std::u16string& path) {
    // unlink, unlike remove, never takes a folder.
    return ::unlink(utf16ToUtf8(path).c_str()) == 0 || !exists(path);
}

}  // namespace Quorvendale::Storage
