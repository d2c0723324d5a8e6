#pragma once

#include <cstdint>
#include <string>

#include "ILibraryRemap.h"
#include "InterfaceContract/LifeTimeController.h"

namespace Quorvendale::StorageClient {

// The library object behind ILibrary: stateless, one per getLibraryInterface
// call. The clients it creates do not refer back to it and outlive it.
class Library final : public InterfaceContract::InterfacedObject {
public:
    Library() noexcept { link(libraryContainer_, this); }

    void createRemoteStorageClient(const std::string& address, std::uint32_t port, IStorage** out);
    void createUwpLocalStorageClient(IStorage** out);

private:
    InterfaceContract::InterfaceContainer<ILibrary, Library> libraryContainer_;
};

}  // namespace Quorvendale::StorageClient
