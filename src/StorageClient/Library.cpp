#include "Library.h"

#include <stdexcept>

#include "InterfaceContract/OutSlot.h"
#include "RemoteStorageClient.h"

namespace Quorvendale::StorageClient {

void Library::createRemoteStorageClient(const std::string& address, std::uint32_t port,
                                        IStorage** out) {
    InterfaceContract::handOut(*new RemoteStorageClient(address, port), IID_IStorage, out);
}

void Library::createUwpLocalStorageClient(IStorage**) {
    throw std::runtime_error("the local storage client is not available in this build");
}

}  // namespace Quorvendale::StorageClient
