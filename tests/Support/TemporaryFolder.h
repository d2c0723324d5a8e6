// A fresh folder under the system's temporary folder, removed with all it
// holds when the test is done.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Quorvendale::Testing {

class TemporaryFolder {
public:
    TemporaryFolder() : path_(make()) {}
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    static std::filesystem::path make() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qv-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary folder");
        }
        return pattern;
    }

    std::filesystem::path path_;
};

}  // namespace Quorvendale::Testing
