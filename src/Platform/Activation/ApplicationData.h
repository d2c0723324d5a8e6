// ApplicationData: the data folders of the calling process's application
// package. Only the local folder exists here, at
// ${XDG_DATA_HOME:-$HOME/.local/share}/Packages/<PackageFamilyName>/LocalState.
//
// A process's package identity is the environment variable
// QUORVENDALE_PACKAGE_FAMILY_NAME, which the app-service host sets. The
// environment is read on every call to Current(), so a process (or a test)
// that changes it is seen at once; an ApplicationData keeps what it read.
#pragma once

#include <string>
#include <utility>

#include "Platform/Activation/StorageFolder.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API ApplicationData {
public:
    // The calling process's application data. Throws HResultError
    // APPMODEL_ERROR_NO_PACKAGE "The process has no package identity." when
    // the process has none.
    static ApplicationData Current();

    // The package's local folder, created with its parents when this process
    // first asks for it.
    // Throws HResultError E_FAIL, naming the folder, when it cannot be made
    // or when neither XDG_DATA_HOME nor HOME says where it belongs.
    StorageFolder LocalFolder() const;

private:
    explicit ApplicationData(std::string localFolderPath)
        : localFolderPath_(std::move(localFolderPath)) {}

    // Empty when the environment gives no data home.
    std::string localFolderPath_;
};

}  // namespace Quorvendale::Platform
