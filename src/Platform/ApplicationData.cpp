#include "ApplicationData.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <system_error>

#include "HResultError.h"
#include "TextConversion.h"

namespace Quorvendale::Platform {

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

[[noreturn]] void failLocalFolder(const std::string& why) {
    throw HResultError(E_FAIL, hstring(utf8ToUtf16("The local folder cannot be used: " + why)));
}

// The base of user data files as the XDG base directory rules define it: a
// relative XDG_DATA_HOME is ignored, like an unset one.
std::string dataHome() {
    const std::string xdgDataHome = environment("XDG_DATA_HOME");
    if (xdgDataHome.starts_with('/')) return xdgDataHome;
    const std::string home = environment("HOME");
    if (home.empty()) failLocalFolder("neither XDG_DATA_HOME nor HOME is set");
    return home + "/.local/share";
}

bool isFolder(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Makes the folder once per path and process, and gives it in UTF-16. The
// store asks for its root twice in every operation, and a package's folder,
// like the platform's, does not go away while its application runs: a path
// seen before is neither checked nor converted again.
hstring madeFolder(const std::string& path) {
    static std::mutex mutex;
    static std::map<std::string, hstring, std::less<>> made;
    {
        const std::lock_guard lock(mutex);
        if (const auto found = made.find(path); found != made.end()) return found->second;
    }
    if (!isFolder(path)) {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        if (error) failLocalFolder(path + ": " + error.message());
    }
    hstring folder(utf8ToUtf16(path));
    const std::lock_guard lock(mutex);
    made.emplace(path, folder);
    return folder;
}

}  // namespace

ApplicationData ApplicationData::Current() {
    std::string packageFamilyName = environment("QUORVENDALE_PACKAGE_FAMILY_NAME");
    if (packageFamilyName.empty()) throw HResultError(APPMODEL_ERROR_NO_PACKAGE);
    return ApplicationData(std::move(packageFamilyName));
}

StorageFolder ApplicationData::LocalFolder() const {
    return StorageFolder(
        madeFolder(dataHome() + "/Packages/" + packageFamilyName_ + "/LocalState"));
}

}  // namespace Quorvendale::Platform
