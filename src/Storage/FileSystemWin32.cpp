// The Windows file system backend: the wide-character C runtime for files,
// whose own text mode translates values, and the Win32 calls for folders.
#include <share.h>
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "Storage/FileSystem.h"

namespace Quorvendale::Storage {

namespace {

static_assert(sizeof(wchar_t) == sizeof(char16_t), "UTF-16 paths pass to the system as they are");

const wchar_t* wide(const std::u16string& path) {
    return reinterpret_cast<const wchar_t*>(path.c_str());
}

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

// Shared for reading and writing by others, so that requests on one entry
// never wait for each other.
File open(const std::u16string& path, const wchar_t* mode) {
    return File(::_wfsopen(wide(path), mode, _SH_DENYNO), &std::fclose);
}

// The rest of a stream, in text mode: fewer bytes than the file holds
// whenever line ends were translated or a 0x1A ended the content.
std::string readRest(FILE* file, std::size_t expected) {
    std::string content;
    std::size_t size = 0;
    // One byte more than expected, so that a full buffer shows the file grew.
    for (std::size_t room = expected + 1;; room *= 2) {
        content.resize_and_overwrite(room, [&](char* buffer, std::size_t) {
            size += std::fread(buffer + size, 1, room - size, file);
            return size;
        });
        if (size < room) return content;
    }
}

}  // namespace

const char16_t FileSystem::separator = u'\\';

bool FileSystem::exists(const std::u16string& path) {
    struct _stat64i32 status {};
    return ::_wstat64i32(wide(path), &status) == 0;
}

bool FileSystem::createFolder(const std::u16string& path) {
    return ::CreateDirectoryW(wide(path), nullptr) != 0;
}

std::optional<std::vector<std::u16string>> FileSystem::listFolder(const std::u16string& path) {
    std::u16string pattern = path;
    if (!pattern.ends_with(u'\\') && !pattern.ends_with(u'/')) pattern += u'\\';
    pattern += u'*';
    WIN32_FIND_DATAW found;
    const HANDLE search = ::FindFirstFileW(wide(pattern), &found);
    if (search == INVALID_HANDLE_VALUE) return std::nullopt;
    std::vector<std::u16string> names;
    do {
        const std::u16string name(reinterpret_cast<const char16_t*>(found.cFileName));
        if (name != u"." && name != u"..") names.push_back(name);
    } while (::FindNextFileW(search, &found));
    ::FindClose(search);
    return names;
}

std::optional<std::string> FileSystem::readText(const std::u16string& path) {
    struct _stat64i32 status {};
    if (::_wstat64i32(wide(path), &status) != 0) return std::nullopt;
    // A folder cannot be opened as a file and reads as empty. A device name
    // (CON, NUL, ...) never gets here: its status cannot be taken.
    const File file = open(path, L"rt");
    if (!file) return "";
    return readRest(file.get(), static_cast<std::size_t>(std::max<long>(status.st_size, 0)));
}

bool FileSystem::writeText(const std::u16string& path, std::string_view data) {
    File file = open(path, L"wt");
    if (!file) return false;
    const bool written = std::fwrite(data.data(), 1, data.size(), file.get()) == data.size();
    // The close writes what is still buffered, and may fail doing so.
    return std::fclose(file.release()) == 0 && written;
}

bool FileSystem::removeFile(const std::u16string& path) {
    // _wremove never takes a folder.
    return !exists(path) || ::_wremove(wide(path)) == 0;
}

}  // namespace Quorvendale::Storage
