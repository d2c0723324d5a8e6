// What each interface of the contract answers in queryInterface: its own
// identifier and, through Base, those of all its bases; and whether a
// successful answer takes a reference (every interface but IExceptionData).
#pragma once

#include <type_traits>

#include "Quorvendale/ILibrary.h"
#include "Quorvendale/IStorage.h"
#include "Quorvendale/InterfaceContract.h"

namespace Quorvendale::InterfaceContract {

template <class Interface>
struct InterfaceTraits;

template <>
struct InterfaceTraits<IUnsafe> {
    using Base = void;
    static constexpr const InterfaceId& id = IID_IUnsafe;
    static constexpr bool counted = true;
};

template <>
struct InterfaceTraits<IInterface> {
    using Base = IUnsafe;
    static constexpr const InterfaceId& id = IID_IInterface;
    static constexpr bool counted = true;
};

template <>
struct InterfaceTraits<IExceptionData> {
    using Base = IUnsafe;
    static constexpr const InterfaceId& id = IID_IExceptionData;
    static constexpr bool counted = false;
};

template <>
struct InterfaceTraits<StorageClient::ILibrary> {
    using Base = IInterface;
    static constexpr const InterfaceId& id = StorageClient::IID_ILibrary;
    static constexpr bool counted = true;
};

template <>
struct InterfaceTraits<StorageClient::IStorage> {
    using Base = IInterface;
    static constexpr const InterfaceId& id = StorageClient::IID_IStorage;
    static constexpr bool counted = true;
};

// True when `id` names Interface or one of its bases.
template <class Interface>
bool answers(const InterfaceId& id) noexcept {
    if (InterfaceId_equal(&id, &InterfaceTraits<Interface>::id)) return true;
    using Base = typename InterfaceTraits<Interface>::Base;
    if constexpr (std::is_void_v<Base>) {
        return false;
    } else {
        return answers<Base>(id);
    }
}

}  // namespace Quorvendale::InterfaceContract
