// A fresh folder under the system's temporary folder for the length of a
// test, removed with everything in it.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace Quorvendale::Testing {

class TemporaryFolder {
public:
    TemporaryFolder() {
        // The clock too: older mingw-w64 random_device gave one sequence.
        std::mt19937_64 names(std::random_device{}() ^
                              std::chrono::steady_clock::now().time_since_epoch().count());
        do {
            path_ = std::filesystem::temp_directory_path() / ("qv-" + std::to_string(names()));
        } while (!std::filesystem::create_directory(path_));
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

// Every byte of a file; empty when it cannot be read.
inline std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace Quorvendale::Testing
