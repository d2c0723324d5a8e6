// A package identity for the length of a test: a fresh temporary folder as
// XDG_DATA_HOME and a package family name, so that ApplicationData's local
// folder (and with it the store's root) lies inside the temporary folder.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "Support/TemporaryFolder.h"

namespace Quorvendale::Testing {

// Sets (or, given null, unsets) one variable and restores it at the end.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const char* value) : name_(name) {
        if (const char* old = ::getenv(name)) old_ = old;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnvironment() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> old_;
};

class PackageFolder {
public:
    static constexpr const char* packageFamilyName = "Test.Package_0123456789abc";

    const std::filesystem::path& base() const { return base_.path(); }
    // The local folder of this process's package, or of another one that
    // keeps its data under the same data home.
    std::filesystem::path localState(const char* package = packageFamilyName) const {
        return base() / "Packages" / package / "LocalState";
    }

private:
    TemporaryFolder base_;
    ScopedEnvironment dataHome_{"XDG_DATA_HOME", base_.path().c_str()};
    ScopedEnvironment package_{"QUORVENDALE_PACKAGE_FAMILY_NAME", packageFamilyName};
};

}  // namespace Quorvendale::Testing
