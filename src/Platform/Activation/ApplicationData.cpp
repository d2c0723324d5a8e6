#include "Platform/Activation/ApplicationData.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <system_error>

#include "Platform/Foundation/HResultError.h"
#include "Platform/Foundation/Mutex.h"
#include "Platform/Text/TextConversion.h"

namespace Quorvendale::Platform {

namespace {

std::string_view environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

[[noreturn]] void failLocalFolder(const std::string& why) {
    throw HResultError(E_FAIL, hstring(utf8ToUtf16("The local folder cannot be used: " + why)));
}

// <data home>/Packages/<package family name>/LocalState, where the data home
// is the base of user data files as the XDG base directory rules define it:
// a relative XDG_DATA_HOME is ignored, like an unset one. Empty when neither
// variable gives one. Built in one allocation.
std::string localFolderPath(std::string_view packageFamilyName) {
    constexpr std::string_view packages = "/Packages/";
    constexpr std::string_view localState = "/LocalState";
    constexpr std::string_view underHome = "/.local/share";
    std::string_view base = environment("XDG_DATA_HOME");
    std::string_view suffix;
    if (!base.starts_with('/')) {
        base = environment("HOME");
        if (base.empty()) return {};
        suffix = underHome;
    }
    std::string path;
    path.reserve(base.size() + suffix.size() + packages.size() + packageFamilyName.size() +
                 localState.size());
    path.append(base).append(suffix).append(packages).append(packageFamilyName).append(localState);
    return path;
}

bool isFolder(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Makes the folder once per path and process, and gives it in UTF-16. The
// store asks for its root twice in every operation, and a package's folder,
// like the platform's, does not go away while its application runs: a path
// seen before is neither checked nor converted again.
struct MadeFolders {
    Mutex mutex;
    std::map<std::string, hstring, std::less<>> paths QV_GUARDED_BY(mutex);
};

hstring madeFolder(const std::string& path) {
    static MadeFolders made;
    {
        const MutexLock lock(made.mutex);
        if (const auto found = made.paths.find(path); found != made.paths.end()) {
            return found->second;
        }
    }
    if (!isFolder(path)) {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        if (error) failLocalFolder(path + ": " + error.message());
    }
    hstring folder(utf8ToUtf16(path));
    const MutexLock lock(made.mutex);
    made.paths.emplace(path, folder);
    return folder;
}

}  // namespace

ApplicationData ApplicationData::Current() {
    const std::string_view packageFamilyName = environment("QUORVENDALE_PACKAGE_FAMILY_NAME");
    if (packageFamilyName.empty()) throw HResultError(APPMODEL_ERROR_NO_PACKAGE);
    return ApplicationData(localFolderPath(packageFamilyName));
}

StorageFolder ApplicationData::LocalFolder() const {
    if (localFolderPath_.empty()) failLocalFolder("neither XDG_DATA_HOME nor HOME is set");
    return StorageFolder(madeFolder(localFolderPath_));
}

}  // namespace Quorvendale::Platform
