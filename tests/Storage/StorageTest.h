// A store rooted in a temporary package folder, with raw file access to check
// what the store leaves on disk.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>

#include "Storage/UwpStorage.h"
#include "Support/PackageFolder.h"

namespace Quorvendale::Storage {

class StorageTest : public testing::Test {
  protected:
    std::filesystem::path entryPath(const std::string& group, const std::string& key) const {
        return package_.localState() / group / key;
    }

    std::string fileBytes(const std::filesystem::path& path) const {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    void putFile(const std::filesystem::path& path, const std::string& bytes) const {
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << bytes;
    }

    // The message of the std::runtime_error that `operation` throws.
    static std::string errorOf(const std::function<void()>& operation) {
        try {
            operation();
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "(no error)";
    }

    Testing::PackageFolder package_;
    UwpStorage store_;
};

}  // namespace Quorvendale::Storage
