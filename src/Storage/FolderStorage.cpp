#include "Storage/FolderStorage.h"

namespace Quorvendale::Storage {

void FolderStorage::ensureGroupFolder(std::string_view group) { openGroup(group); }

std::vector<std::string> FolderStorage::getKeys(std::string_view group) {
    return namesIn(openGroup(group), group);
}

}  // namespace Quorvendale::Storage
