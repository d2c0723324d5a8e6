// The ILibrary table for Library: the two factories, inside the boundary
// guard.
#pragma once

#include "InterfaceContract/Details/InterfaceRemap.h"
#include "Quorvendale/ILibrary.h"

namespace Quorvendale::InterfaceContract::Details {

template <class Impl, class Ctl>
struct InterfaceRemap<StorageClient::ILibrary, Impl, Ctl> : InterfaceRemap<IInterface, Impl, Ctl> {
    using Interface = StorageClient::ILibrary;
    using Table = StorageClient::ILibraryTable;
    static const Table table;

    static Impl* library(Interface* self) noexcept {
        return InterfaceRemap::template ownerOf<InterfaceRemap>(self);
    }

    static ResultCode QV_CALL createRemoteStorageClient(Interface* self, const char* address,
                                                        std::uint32_t addressLength,
                                                        std::uint32_t port,
                                                        StorageClient::IStorage** out) noexcept {
        return guard([&] {
            requireOut(out, "storage out-slot");
            library(self)->createRemoteStorageClient(copyIn(address, addressLength), port, out);
        });
    }

    static ResultCode QV_CALL createUwpLocalStorageClient(Interface* self,
                                                          StorageClient::IStorage** out) noexcept {
        return guard([&] {
            requireOut(out, "storage out-slot");
            library(self)->createUwpLocalStorageClient(out);
        });
    }
};

template <class Impl, class Ctl>
const StorageClient::ILibraryTable InterfaceRemap<StorageClient::ILibrary, Impl, Ctl>::table = {
    &InterfaceRemap::template queryInterface<InterfaceRemap, Interface>,
    &InterfaceRemap::template addRef<InterfaceRemap, Interface>,
    &InterfaceRemap::template release<InterfaceRemap, Interface>,
    &InterfaceRemap::createRemoteStorageClient,
    &InterfaceRemap::createUwpLocalStorageClient,
};

}  // namespace Quorvendale::InterfaceContract::Details
