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

// Files move through a buffer of this size: small enough to stay in the
// processor's cache between the system call and the translation.
constexpr std::size_t chunkSize = 64 * 1024;

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

// Writes data with every LF as CR LF, copying each byte once into the chunk
// buffer on its way to the file.
bool writeTextMode(int fd, std::string_view data) {
    const auto buffer = std::make_unique_for_overwrite<char[]>(chunkSize);
    std::size_t used = 0;
    while (!data.empty()) {
        if (used + 2 > chunkSize) {
            if (!writeAll(fd, buffer.get(), used)) return false;
            used = 0;
        }
        const std::size_t room = chunkSize - used - 1;  // room for a CR before an LF
        const std::size_t take = std::min(room, data.size());
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

// Text-mode reading, fed one chunk at a time. A CR that ends one chunk is
// held back until the next shows whether an LF follows it.
class TextModeReader {
  public:
    explicit TextModeReader(std::string& content) : content_(content) {}

    // Appends the translation of a chunk. False once the content has ended
    // at a byte 0x1A: nothing after it counts.
    bool feed(std::string_view chunk) {
        if (pendingCarriageReturn_ && chunk.front() != lineFeed) content_.push_back(carriageReturn);
        pendingCarriageReturn_ = false;
        const std::size_t end = chunk.find(endOfText);
        const bool ended = end != std::string_view::npos;
        chunk = chunk.substr(0, end);
        for (std::size_t from = 0;;) {
            const std::size_t cr = chunk.find(carriageReturn, from);
            if (cr == std::string_view::npos) {
                content_.append(chunk);
                return !ended;
            }
            if (cr + 1 == chunk.size() && !ended) {
                content_.append(chunk.substr(0, cr));
                pendingCarriageReturn_ = true;
                return true;
            }
            if (cr + 1 < chunk.size() && chunk[cr + 1] == lineFeed) {
                content_.append(chunk.substr(0, cr));
                chunk.remove_prefix(cr + 1);
                from = 1;  // past the LF, which stays as the first byte of the rest
            } else {
                from = cr + 1;
            }
        }
    }

    void finish() {
        if (pendingCarriageReturn_) content_.push_back(carriageReturn);
    }

  private:
    std::string& content_;
    bool pendingCarriageReturn_ = false;
};

std::string readTextMode(int fd) {
    std::string content;
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        content.reserve(static_cast<std::size_t>(status.st_size));
    }
    const auto buffer = std::make_unique_for_overwrite<char[]>(chunkSize);
    TextModeReader reader(content);
    for (;;) {
        const ssize_t got = ::read(fd, buffer.get(), chunkSize);
        if (got < 0 && errno == EINTR) continue;
        // A folder fails here with EISDIR and so reads as empty.
        if (got <= 0) break;
        if (!reader.feed(std::string_view(buffer.get(), static_cast<std::size_t>(got)))) {
            return content;
        }
    }
    reader.finish();
    return content;
}

}  // namespace

bool FileSystem::exists(const std::u16string& path) {
    struct stat status {};
    return ::stat(utf16ToUtf8(path).c_str(), &status) == 0;
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

std::string FileSystem::readText(const std::u16string& path) {
    FileDescriptor file(::open(utf16ToUtf8(path).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) return {};
    return readTextMode(file.get());
}

bool FileSystem::writeText(const std::u16string& path, std::string_view data) {
    FileDescriptor file(
        ::open(utf16ToUtf8(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file.valid()) return false;
    const bool written = writeTextMode(file.get(), data);
    return file.close() && written;
}

bool FileSystem::removeFile(const std::u16string& path) {
    return ::unlink(utf16ToUtf8(path).c_str()) == 0;
}

}  // namespace Quorvendale::Storage
