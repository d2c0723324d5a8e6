// UwpStorage: the store the storage service uses, rooted in the local folder
// of the application package the service runs in (ApplicationData), which it
// asks for on every call. One instance serves the whole process.
#pragma once

#include "Storage/FolderStorage.h"

namespace Quorvendale::Storage {

class UwpStorage : public FolderStorage {
public:
    // The process-wide store, made on first use (safe from any thread) and
    // destroyed at process exit.
    static UwpStorage& instance();

    // The package's local folder. Throws the platform's HResultError when
    // the process has no package identity or the folder cannot be made.
    std::u16string getRootFolder() override;
};

}  // namespace Quorvendale::Storage
