// UwpStorage: the store the storage service uses, rooted in the local folder
// of the application package the service runs in (ApplicationData), which it
// asks for on every call. One instance serves the whole process.
#pragma once

#include "Storage/BasicStorage.h"

namespace Quorvendale::Storage {

class UwpStorage : public BasicStorage {
public:
    // The process-wide store, made on first use (safe from any thread) and
    // destroyed at process exit.
    static UwpStorage& instance();

    // The package's local folder. Throws the platform's HResultError when
    // the process has no package identity or the folder cannot be made.
    std::u16string getRootFolder() override;
    // Lists the group's folder, making it first if needed. Throws
    // std::runtime_error "Failed to open folder: <group>" when it cannot be
    // listed.
    std::vector<std::string> getKeys(std::string_view group) override;
    // Creates the group's folder when it is missing: the one last level only,
    // so a group "a/b" needs a group "a" to exist first. Failure is silent;
    // the file operation that follows reports it.
    void ensureGroupFolder(std::string_view group) override;
};

}  // namespace Quorvendale::Storage
