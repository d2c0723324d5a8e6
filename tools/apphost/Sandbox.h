// The host's confinement. The store uses a request's group and key as parts
// of file paths as they stand, trusting the platform to keep the service
// inside its package's folder; here the host gives that guarantee itself,
// with Landlock: once confined, the process (and every thread it starts
// afterwards) can read, write, create and remove files only under one
// folder. A ".." that climbs out fails like any other denied access.
#pragma once

#include <string>
#include <vector>

namespace Quorvendale::AppHost {

enum class Confinement {
    Confined,
    Unsupported,  // the kernel has no Landlock: the process runs unconfined
};

// Confines the calling process to the folder, for good; the folders in
// `readable` may still be read, and nothing else. Call it before the process
// starts any thread: threads that already run stay unconfined. Throws
// std::system_error when the kernel offers Landlock but refuses it.
Confinement confineTo(const std::string& folder, const std::vector<std::string>& readable = {});

}  // namespace Quorvendale::AppHost
