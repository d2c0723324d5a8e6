#pragma once

#include "Quorvendale/InterfaceContract.h"

namespace Quorvendale::InterfaceContract::Details {

// One link of an object's remap chain: it answers queryInterface for the
// interfaces of the one table it holds. Links are members of the object and
// are never freed through this type.
class IRemapContainer {
public:
    // Stores the table answering `id` in *out, or null; sets *counted when a
    // successful answer must take a reference.
    virtual void find(const InterfaceId& id, void** out, bool* counted) noexcept = 0;

    IRemapContainer* next = nullptr;

protected:
    IRemapContainer() = default;
    ~IRemapContainer() = default;
};

}  // namespace Quorvendale::InterfaceContract::Details
