#include "LibraryLocation.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace Quorvendale::Qvstore {
namespace {

// Set by the build: the library folder relative to the program folder of an
// installation, the library's file name, and the library of this build tree.
constexpr const char* libraryFolderFromProgramFolder = QVSTORE_LIBRARY_FROM_PROGRAM_FOLDER;
constexpr const char* libraryFileName = QVSTORE_LIBRARY_FILE_NAME;
constexpr const char* buildTreeLibrary = QVSTORE_BUILD_TREE_LIBRARY;

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
    candidates.emplace_back(buildTreeLibrary);
    return candidates;
}

std::string chooseDefaultLibrary(const std::vector<std::string>& candidates) {
    for (const std::string& candidate : candidates) {
        std::error_code failed;
        if (std::filesystem::exists(candidate, failed)) return candidate;
    }
    std::string tried;
    for (const std::string& candidate : candidates)
        tried += (tried.empty() ? "" : ", ") + candidate;
    throw std::runtime_error("no client library at " + tried + "; name one with --library PATH");
}

}  // namespace Quorvendale::Qvstore
