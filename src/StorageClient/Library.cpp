#include "Library.h"

#include <stdexcept>

#include "InterfaceContract/OutSlot.h"

namespace Quorvendale::StorageClient {

void Library::createRemoteStorageClient(const std::string&, std::uint32_t, IStorage**) {
    throw std::runtime_error("the remote storage client is not available in this build");
}

void Library::createUwpLocalStorageClient(IStorage**) {
    throw std::runtime_error("the local storage client is not available in this build");
}

}  // namespace Quorvendale::StorageClient
