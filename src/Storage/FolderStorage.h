// FolderStorage: a BasicStorage whose groups are folders of the file system
// under a root that the subclass gives, listed and made as the store's own
// operations do it. UwpStorage roots it in the
// application package's local folder; a store rooted anywhere else behaves
// the same.
#pragma once

#include "Storage/BasicStorage.h"

namespace Quorvendale::Storage {

class FolderStorage : public BasicStorage {
public:
    // Lists the group's folder, making it first if needed, in the file
    // system's own order. Throws std::runtime_error "Failed to open folder:
    // <group>" when it cannot be listed.
    std::vector<std::string> getKeys(std::string_view group) override;
    // Creates the group's folder when it is missing: the one last level only,
    // so a group "a/b" needs a group "a" to exist first. Failure is silent;
    // the file operation that follows reports it.
    void ensureGroupFolder(std::string_view group) override;
};

}  // namespace Quorvendale::Storage
