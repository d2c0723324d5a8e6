#pragma once

#include "IRemapContainer.h"
#include "InterfaceContract/InterfaceTraits.h"

namespace Quorvendale::InterfaceContract::Details {

// A chain link holding one patch, answering the patch's interface and its
// bases.
template <class Patch>
class RemapContainer final : public IRemapContainer {
public:
    using Interface = typename Patch::Interface;

    void find(const InterfaceId& id, void** out, bool* counted) noexcept override {
        if (answers<Interface>(id)) {
            *out = pointer();
            *counted = InterfaceTraits<Interface>::counted;
        } else {
            *out = nullptr;
        }
    }

    Interface* pointer() noexcept { return &patch; }

    Patch patch;
};

}  // namespace Quorvendale::InterfaceContract::Details
