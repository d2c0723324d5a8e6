// The IStorage table for any BasicStorageClient: each entry copies its
// array-in arguments, calls the client's virtual method (so the most-derived
// override runs) and copies the result out, all inside the boundary guard.
// Nothing is written to the caller's outputs when the method throws.
#pragma once

#include <string>

#include "InterfaceContract/Details/InterfaceRemap.h"
#include "Quorvendale/IStorage.h"

namespace Quorvendale::InterfaceContract::Details {

template <class Impl, class Ctl>
struct InterfaceRemap<StorageClient::IStorage, Impl, Ctl> : InterfaceRemap<IInterface, Impl, Ctl> {
    using Interface = StorageClient::IStorage;
    using Table = StorageClient::IStorageTable;
    static const Table table;

    static Impl* client(Interface* self) noexcept {
        return InterfaceRemap::template ownerOf<InterfaceRemap>(self);
    }

    // read and next: (group, key) in, the method's bytes out through the
    // caller's marshaller. A pointer to the virtual method still dispatches to
    // the most-derived override.
    template <std::string (Impl::*method)(const std::string&, const std::string&)>
    static ResultCode QV_CALL lookup(Interface* self, const char* group, std::uint32_t groupLength,
                                     const char* key, std::uint32_t keyLength, void* context,
                                     ArrayOutAllocate allocate) noexcept {
        return guard([&] {
            requireOut(allocate, "array-out allocation callback");
            copyOut(context, allocate,
                    (client(self)->*method)(copyIn(group, groupLength), copyIn(key, keyLength)));
        });
    }

    static ResultCode QV_CALL write(Interface* self, const char* group, std::uint32_t groupLength,
                                    const char* key, std::uint32_t keyLength, const char* data,
                                    std::uint32_t dataLength) noexcept {
        return guard([&] {
            client(self)->write(copyIn(group, groupLength), copyIn(key, keyLength),
                                copyIn(data, dataLength));
        });
    }

    static ResultCode QV_CALL remove(Interface* self, const char* group, std::uint32_t groupLength,
                                     const char* key, std::uint32_t keyLength) noexcept {
        return guard(
            [&] { client(self)->remove(copyIn(group, groupLength), copyIn(key, keyLength)); });
    }

    static ResultCode QV_CALL exists(Interface* self, std::uint32_t* result) noexcept {
        return guard([&] {
            requireOut(result, "exists result");
            *result = booleanWord(client(self)->exists());
        });
    }
};

template <class Impl, class Ctl>
const StorageClient::IStorageTable InterfaceRemap<StorageClient::IStorage, Impl, Ctl>::table = {
    &InterfaceRemap::template queryInterface<InterfaceRemap, Interface>,
    &InterfaceRemap::template addRef<InterfaceRemap, Interface>,
    &InterfaceRemap::template release<InterfaceRemap, Interface>,
    &InterfaceRemap::template lookup<&Impl::read>,
    &InterfaceRemap::write,
    &InterfaceRemap::remove,
    &InterfaceRemap::template lookup<&Impl::next>,
    &InterfaceRemap::exists,
};

}  // namespace Quorvendale::InterfaceContract::Details
