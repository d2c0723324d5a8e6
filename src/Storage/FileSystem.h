// FileSystem: the few file operations the store needs, on wide (UTF-16)
// paths. Every system call of the store goes through here, so that each
// platform has one backend file (FileSystemPosix.cpp, FileSystemWin32.cpp)
// beside the portable store.
//
// Values are kept in the text mode of the Windows C runtime: Windows uses
// the C runtime's own, elsewhere TextMode.h reproduces it.
//
// Nothing here locks or serialises: files are opened shared, so a read that
// runs during a write of the same file may see it shortened. The store
// orders its own requests on an entry (EntryLocks.h).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvendale::Storage {

class FileSystem {
public:
    // Separates folder levels in the paths the store builds: the platform's
    // own separator, which is also the one in its error texts.
    static const char16_t separator;

    // True when the path's status can be taken: a file or a folder is there.
    static bool exists(const std::u16string& path);

    // Creates the one last level of the path. False when it could not be
    // made, which includes a folder that exists already.
    static bool createFolder(const std::u16string& path);

    // The names in a folder, files and folders alike, in the file system's
    // own order and without "." and "..". Nothing when the folder cannot be
    // opened; an error during the listing just ends the list.
    static std::optional<std::vector<std::u16string>> listFolder(const std::u16string& path);

    // The whole content of a file, read in text mode. Nothing when the path's
    // status cannot be taken; empty when what is there cannot be opened or is
    // a folder. Reading never waits: a pipe or a device gives what one read
    // finds at once when that is under 4 KiB, and nothing otherwise.
    static std::optional<std::string> readText(const std::u16string& path);

    // Replaces the whole content of a file, creating it if needed, written in
    // text mode. False when the open, a write or the close failed. An
    // existing file is emptied only once the new content is known to fit
    // (the POSIX backend checks the free space and the file-size limit
    // first); a write that fails after that may leave the file cut short.
    static bool writeText(const std::u16string& path, std::string_view data);

    // Deletes a file. True when it is gone or was never there; false when
    // something is there and stays, which is always so for a folder.
    static bool removeFile(const std::u16string& path);
};

}  // namespace Quorvendale::Storage
