// InterfaceRemap<Interface, Implementation, Controller>: the stateless adapter
// that supplies Interface's operation table for an Implementation object whose
// lifetime Controller keeps. Adapters derive along the interface hierarchy, so
// a table's inherited slots come from its bases' thunks; each derived adapter
// instantiates them for its own patch type.
//
// Every thunk reaches the object through the patch's owner. Thunks of the
// storage interfaces run inside the boundary guard; queryInterface, addRef,
// release and the IExceptionData slots raise nothing by construction.
#pragma once

#include <cstdint>

#include "InterfaceContract/BoundaryGuard.h"
#include "InterfaceContract/Marshalling.h"
#include "RemapPatch.h"

namespace Quorvendale::InterfaceContract::Details {

template <class Interface, class Implementation, class Controller>
struct InterfaceRemap;

template <class Impl, class Ctl>
struct InterfaceRemap<IUnsafe, Impl, Ctl> {
    using Implementation = Impl;

    template <class Remap, class Self>
    static Impl* ownerOf(Self* self) noexcept {
        return static_cast<RemapPatch<Remap>*>(self)->owner;
    }

    template <class Remap, class Self>
    static ResultCode QV_CALL queryInterface(Self* self, const InterfaceId* id,
                                             void** out) noexcept {
        return static_cast<Ctl*>(ownerOf<Remap>(self))->queryInterface(id, out);
    }
};

template <class Impl, class Ctl>
struct InterfaceRemap<IInterface, Impl, Ctl> : InterfaceRemap<IUnsafe, Impl, Ctl> {
    using Interface = IInterface;
    using Table = IInterfaceTable;
    static const Table table;

    template <class Remap, class Self>
    static std::uint32_t QV_CALL addRef(Self* self) noexcept {
        return static_cast<Ctl*>(InterfaceRemap::template ownerOf<Remap>(self))->addRef();
    }

    template <class Remap, class Self>
    static std::uint32_t QV_CALL release(Self* self) noexcept {
        return static_cast<Ctl*>(InterfaceRemap::template ownerOf<Remap>(self))->release();
    }
};

template <class Impl, class Ctl>
const IInterfaceTable InterfaceRemap<IInterface, Impl, Ctl>::table = {
    &InterfaceRemap::template queryInterface<InterfaceRemap, IInterface>,
    &InterfaceRemap::template addRef<InterfaceRemap, IInterface>,
    &InterfaceRemap::template release<InterfaceRemap, IInterface>,
};

// The per-thread message slot, reachable on every object. The slot belongs to
// the thread, so these thunks never look at the owner.
template <class Impl, class Ctl>
struct InterfaceRemap<IExceptionData, Impl, Ctl> : InterfaceRemap<IUnsafe, Impl, Ctl> {
    using Interface = IExceptionData;
    using Table = IExceptionDataTable;
    static const Table table;

    // Not inside the guard: a failure to read the message must not replace it.
    static ResultCode QV_CALL getMessage(IExceptionData*, void* context,
                                         ArrayOutAllocate allocate) noexcept {
        if (allocate == nullptr) return QV_E_INVALIDARG;
        try {
            copyOut(context, allocate, threadMessage());
            return QV_S_OK;
        } catch (...) {
            return QV_E_FAIL;
        }
    }

    static ResultCode QV_CALL setMessage(IExceptionData*, const char* message,
                                         std::uint32_t length) noexcept {
        try {
            threadMessage() = copyIn(message, length);
            return QV_S_OK;
        } catch (...) {
            return QV_E_FAIL;
        }
    }
};

template <class Impl, class Ctl>
const IExceptionDataTable InterfaceRemap<IExceptionData, Impl, Ctl>::table = {
    &InterfaceRemap::template queryInterface<InterfaceRemap, IExceptionData>,
    &InterfaceRemap::getMessage,
    &InterfaceRemap::setMessage,
};

}  // namespace Quorvendale::InterfaceContract::Details
