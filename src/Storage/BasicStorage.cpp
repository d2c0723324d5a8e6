#include "Storage/BasicStorage.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <utility>

#include "Platform/Text/TextConversion.h"
#include "Storage/FileSystem.h"

namespace Quorvendale::Storage {

namespace {

using Platform::appendUtf16;
using Platform::utf16ToUtf8;

constexpr std::string_view defaultKey = "default";
const std::u16string defaultFileName = u".default";

}  // namespace

std::u16string BasicStorage::groupFolder(std::string_view group) {
    std::u16string folder = getRootFolder();
    folder.reserve(folder.size() + group.size() + 2);
    folder += FileSystem::separator;
    appendUtf16(folder, group);
    folder += FileSystem::separator;
    return folder;
}

std::u16string BasicStorage::openGroup(std::string_view group) {
    std::u16string folder = groupFolder(group);
    if (!FileSystem::exists(folder)) FileSystem::createFolder(folder);
    return folder;
}

std::vector<std::string> BasicStorage::namesIn(const std::u16string& folder,
                                               std::string_view group) {
    const auto names = FileSystem::listFolder(folder);
    if (!names) throw std::runtime_error("Failed to open folder: " + std::string(group));
    std::vector<std::string> keys;
    keys.reserve(names->size());
    for (const std::u16string& name : *names) keys.push_back(utf16ToUtf8(name));
    return keys;
}

std::u16string BasicStorage::getFilePath(std::string_view group, std::string_view key) {
    return entryPath(openGroup(group), key);
}

// The entry's path in its group's folder, "default" resolved.
std::u16string BasicStorage::entryPath(std::u16string folder, std::string_view key) {
    if (key == defaultKey) {
        // The alias is an entry too: read whole, never half written. Its
        // hold ends before the caller takes the entry it names, so no
        // request holds two entries at once.
        const std::u16string alias = folder + defaultFileName;
        const EntryLocks::Hold reading(entryLocks_, alias, EntryLocks::Use::Read);
        appendUtf16(folder, readFile(alias));
    } else {
        appendUtf16(folder, key);
    }
    return folder;
}

std::uint64_t BasicStorage::sizeOf(std::string_view group, std::string_view key) noexcept {
    try {
        std::u16string folder = groupFolder(group);
        if (key == defaultKey && !FileSystem::exists(folder + defaultFileName)) return 0;
        std::error_code failed;
        const auto size = std::filesystem::file_size(entryPath(std::move(folder), key), failed);
        return failed ? 0 : size;
    } catch (...) {
        return 0;
    }
}

std::string BasicStorage::readFile(const std::u16string& path) {
    std::optional<std::string> content = FileSystem::readText(path);
    if (!content) {
        throw std::runtime_error("Read file error: file " + utf16ToUtf8(path) + " is not exist");
    }
    return std::move(*content);
}

std::string BasicStorage::read(std::string_view group, std::string_view key) {
    std::u16string folder = openGroup(group);
    // An unset alias reads as empty, while write() of it fails: callers probe
    // "default" without setting it first.
    if (key == defaultKey && !FileSystem::exists(folder + defaultFileName)) return {};
    const std::u16string path = entryPath(std::move(folder), key);
    const EntryLocks::Hold reading(entryLocks_, path, EntryLocks::Use::Read);
    return readFile(path);
}

void BasicStorage::write(std::string_view group, std::string_view key, std::string_view data) {
    const std::u16string path = getFilePath(group, key);
    const EntryLocks::Hold writing(entryLocks_, path, EntryLocks::Use::Write);
    if (!FileSystem::writeText(path, data)) throw std::runtime_error("Write file error");
}

void BasicStorage::remove(std::string_view group, std::string_view key) {
    const std::u16string path = getFilePath(group, key);
    const EntryLocks::Hold removing(entryLocks_, path, EntryLocks::Use::Write);
    if (!FileSystem::removeFile(path)) throw std::runtime_error("Remove file error");
}

std::string BasicStorage::next(std::string_view group, std::string_view key) {
    const std::vector<std::string> keys = namesIn(openGroup(group), group);
    if (key.empty()) return keys.empty() ? std::string() : keys.front();
    const auto found = std::find(keys.begin(), keys.end(), key);
    if (found == keys.end()) throw std::runtime_error("Invalid key");
    const auto following = std::next(found);
    return following == keys.end() ? std::string() : *following;
}

}  // namespace Quorvendale::Storage
