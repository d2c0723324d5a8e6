// The file store rooted in a temporary folder of the test's own, and ways to
// look at what it leaves on disk.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include "Storage/FolderStorage.h"
#include "Support/TemporaryFolder.h"

namespace Quorvendale::Storage {

class TemporaryStore final : public FolderStorage {
public:
    explicit TemporaryStore(const std::filesystem::path& root) : root_(root.u16string()) {}
    std::u16string getRootFolder() override { return root_; }

private:
    std::u16string root_;
};

class StorageTest : public testing::Test {
protected:
    // Names and paths in UTF-8 on every platform, as the store has them.
    static std::filesystem::path fromUtf8(const std::string& name) {
        return std::u8string(name.begin(), name.end());
    }
    static std::string utf8(const std::filesystem::path& path) {
        const std::u8string text = path.u8string();
        return {text.begin(), text.end()};
    }

    std::filesystem::path entryPath(const std::string& group, const std::string& key) const {
        return folder_.path() / fromUtf8(group) / fromUtf8(key);
    }

    static std::string errorOf(const std::function<void()>& operation) {
        try {
            operation();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "(no error)";
    }

    Testing::TemporaryFolder folder_;
    TemporaryStore store_{folder_.path()};
};

}  // namespace Quorvendale::Storage
