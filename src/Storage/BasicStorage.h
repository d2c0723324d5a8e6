// BasicStorage: the storage service's entries as plain files, one folder per
// group under a root folder and one file per key in it:
//
//   <root>/<group>/<key>
//
// Group and key arrive as UTF-8 and are used as path text as they stand:
// nothing is escaped or checked, so a "/" or ".." in them reaches the file
// system unchanged (the process's sandbox, not the store, keeps it inside its
// folder). A value is the file's whole content, kept in text mode (see
// TextMode.h): it comes back unchanged exactly when it holds no byte 0x1A,
// since a CR stored before an LF is read back as it was.
//
// In every group the key "default" is an alias: the file ".default" holds the
// name of the key it stands for, verbatim (a trailing newline is part of the
// name). The store never writes ".default" itself; callers set the alias by
// writing the key ".default".
//
// Failures are std::runtime_error with one of the texts:
//   "Read file error: file <path> is not exist"   an entry to read is missing
//   "Write file error"                           a write failed
//   "Remove file error"                          an existing entry was not removed
//   "Invalid key"                                next() of a key not in the group
//
// The store holds no data: one instance may serve many threads at once, and
// orders their requests on each entry alone (EntryLocks.h): a read never sees
// a write of the same entry under way. A subclass says where the root is,
// lists a group's keys and makes group folders (FolderStorage does the last
// two with the store's own namesIn and openGroup).
//
// Each operation builds its group's folder once, from one getRootFolder(),
// makes it exist and derives the entry's path from it: the root and the
// paths are rebuilt for every operation, never kept between them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Storage/EntryLocks.h"

namespace Quorvendale::Storage {

class BasicStorage {
public:
    virtual ~BasicStorage() = default;

    // The root folder, without a trailing separator. Asked again by every
    // operation; nothing is cached.
    virtual std::u16string getRootFolder() = 0;
    // The names in the group's folder, files and folders alike (".default"
    // included), in the order the subclass lists them.
    virtual std::vector<std::string> getKeys(std::string_view group) = 0;
    // Makes the group's folder exist, if it can.
    virtual void ensureGroupFolder(std::string_view group) = 0;

    // Each of read, write, remove and next first makes the group's folder
    // exist, so touching a new group leaves an empty folder behind.

    // The value of an entry. The key "default" with no ".default" file reads
    // as an empty value; an entry that is a folder reads as empty too.
    std::string read(std::string_view group, std::string_view key);
    // Replaces the entry's whole content. For the key "default" a missing
    // ".default" file fails with the read error naming it.
    void write(std::string_view group, std::string_view key, std::string_view data);
    // Deletes the entry; a missing one is no error. "default" removes the
    // entry it stands for and keeps ".default".
    void remove(std::string_view group, std::string_view key);
    // The name after `key` in the group's listing (getKeys' order), the first
    // name for the empty key, or empty text after the last. "default" is not resolved here.
    std::string next(std::string_view group, std::string_view key);

    // The entry file's path, the key "default" resolved through ".default";
    // makes the group's folder first, as the operations do.
    std::u16string getFilePath(std::string_view group, std::string_view key);
    // The size of the entry's value as read() would give it, 0 when there is
    // none; nothing is made or read but the alias. For the service to admit
    // a read before it holds the value.
    std::uint64_t sizeOf(std::string_view group, std::string_view key) noexcept;
    // A file's whole content; fails with the read error when the file's
    // status cannot be taken.
    std::string readFile(const std::u16string& path);

protected:
    // <root>/<group>/, the group in UTF-16 up to its first zero byte.
    std::u16string groupFolder(std::string_view group);
    // groupFolder(group), made first when it is missing: the one last level
    // only, so a group "a/b" needs a group "a" to exist first. Failure is
    // silent; the file operation that follows reports it.
    std::u16string openGroup(std::string_view group);
    // The names in a group's folder, files and folders alike, in the file
    // system's own order. Throws std::runtime_error "Failed to open folder:
    // <group>" when it cannot be listed.
    static std::vector<std::string> namesIn(const std::u16string& folder, std::string_view group);

private:
    std::u16string entryPath(std::u16string folder, std::string_view key);

    EntryLocks entryLocks_;
};

}  // namespace Quorvendale::Storage
