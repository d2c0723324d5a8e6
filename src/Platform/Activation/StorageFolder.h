// A folder of the file system, as the runtime names one.
#pragma once

#include <utility>

#include "Platform/Foundation/PlatformExport.h"
#include "Platform/Foundation/hstring.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API StorageFolder {
public:
    explicit StorageFolder(hstring path) : path_(std::move(path)) {}

    // The folder's full path, without a trailing separator. Taken from a
    // temporary folder it is moved out, not copied.
    const hstring& Path() const& { return path_; }
    hstring Path() && { return std::move(path_); }

private:
    hstring path_;
};

}  // namespace Quorvendale::Platform
