#include "LibraryLocation.h"

#include <filesystem>
#include <system_error>

namespace Quorvendale::Qvstore {
namespace {

// Set by the build: the library folder relative to the program folder of an
// installation, and the library's file name, its SONAME.
constexpr const char* libraryFolderFromProgramFolder = QVSTORE_LIBRARY_FROM_PROGRAM_FOLDER;
constexpr const char* libraryFileName = QVSTORE_LIBRARY_FILE_NAME;

}  // namespace

std::vector<std::string> defaultLibraryCandidates() {
    std::vector<std::string> candidates;
    std::error_code failed;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failed);
    if (!failed) {
        const std::filesystem::path installed =
            program.parent_path() / libraryFolderFromProgramFolder / libraryFileName;
        candidates.push_back(installed.lexically_normal().string());
    }
    candidates.emplace_back(libraryFileName);
    return candidates;
}

std::string chooseDefaultLibrary(const std::vector<std::string>& candidates) {
    for (const std::string& candidate : candidates) {
        std::error_code failed;
        if (candidate.find('/') != std::string::npos &&
            std::filesystem::exists(candidate, failed)) {
            return candidate;
        }
    }
    return candidates.back();
}

}  // namespace Quorvendale::Qvstore
