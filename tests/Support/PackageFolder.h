// A package identity for the length of a test: a fresh temporary folder as
// XDG_DATA_HOME and a package family name, so that ApplicationData's local
// folder (and with it the store's root) lies inside the temporary folder.
// Restores the environment and deletes the folder at the end.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>

namespace Quorvendale::Testing {

class ScopedEnvironment {
  public:
    ScopedEnvironment(const char* name, const char* value) : name_(name) {
        if (const char* old = ::getenv(name)) old_ = old;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    ~ScopedEnvironment() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

inline std::filesystem::path makeTemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qv-test-XXXXXX").string();
    return ::mkdtemp(pattern.data());
}

class PackageFolder {
  public:
    static constexpr const char* packageFamilyName = "Test.Package_0123456789abc";

    PackageFolder() = default;
    PackageFolder(const PackageFolder&) = delete;
    PackageFolder& operator=(const PackageFolder&) = delete;
    ~PackageFolder() { std::filesystem::remove_all(base_); }

    const std::filesystem::path& base() const { return base_; }
    // Where ApplicationData puts the package's local folder.
    std::filesystem::path localState() const {
        return base_ / "Packages" / packageFamilyName / "LocalState";
    }

  private:
    std::filesystem::path base_ = makeTemporaryFolder();
    ScopedEnvironment dataHome_{"XDG_DATA_HOME", base_.c_str()};
    ScopedEnvironment package_{"QUORVENDALE_PACKAGE_FAMILY_NAME", packageFamilyName};
};

}  // namespace Quorvendale::Testing
