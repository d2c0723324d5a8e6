#include "ApplicationData.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
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

// Makes the folder once per path and process. The store asks for its root
// several times in every operation, and a package's folder, like the
// platform's, does not go away while its application runs.
void ensureFolderOnce(const std::string& path) {
    static std::mutex mutex;
    static std::set<std::string> made;
    {
        const std::lock_guard lock(mutex);
        if (made.contains(path)) return;
    }
    if (!isFolder(path)) {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        if (error) failLocalFolder(path + ": " + error.message());
    }
    const std::lock_guard lock(mutex);
    made.insert(path);
}

}  // namespace

ApplicationData ApplicationData::Current() {
    std::string packageFamilyName = environment("QUORVENDALE_PACKAGE_FAMILY_NAME");
    if (packageFamilyName.empty()) throw HResultError(APPMODEL_ERROR_NO_PACKAGE);
    return ApplicationData(std::move(packageFamilyName));
}

StorageFolder ApplicationData::LocalFolder() const {
    // The store asks for its root in every operation, and the data home and
    // package behind it hardly ever change: a thread that finds both as on its
    // last call reuses that call's folder, already made and converted.
    thread_local std::string lastDataHome;
    thread_local std::string lastPackage;
    thread_local hstring lastFolder;
    std::string home = dataHome();
    if (lastFolder.empty() || home != lastDataHome || packageFamilyName_ != lastPackage) {
        const std::string path = home + "/Packages/" + packageFamilyName_ + "/LocalState";
        ensureFolderOnce(path);
        lastFolder = hstring(utf8ToUtf16(path));
        lastDataHome = std::move(home);
        lastPackage = packageFamilyName_;
    }
    return StorageFolder(lastFolder);
}

}  // namespace Quorvendale::Platform
