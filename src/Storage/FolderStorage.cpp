#include "Storage/FolderStorage.h"

#include <stdexcept>
#include <string>

#include "Platform/Text/TextConversion.h"
#include "Storage/FileSystem.h"

namespace Quorvendale::Storage {

void FolderStorage::ensureGroupFolder(std::string_view group) {
    const std::u16string folder = groupFolder(group);
    if (!FileSystem::exists(folder)) FileSystem::createFolder(folder);
}

std::vector<std::string> FolderStorage::getKeys(std::string_view group) {
    ensureGroupFolder(group);
    const auto names = FileSystem::listFolder(groupFolder(group));
    if (!names) throw std::runtime_error("Failed to open folder: " + std::string(group));
    std::vector<std::string> keys;
    keys.reserve(names->size());
    for (const std::u16string& name : *names) keys.push_back(Platform::utf16ToUtf8(name));
    return keys;
}

}  // namespace Quorvendale::Storage
