// For builds without the local client, which needs an app-service
// connection: the Windows build has no Windows Runtime to make one with.
#include <stdexcept>

#include "LocalStorageClient.h"

namespace Quorvendale::StorageClient {

BasicStorageClient* newLocalStorageClient() {
    throw std::runtime_error("the local client is not part of this build");
}

}  // namespace Quorvendale::StorageClient
