#pragma once

#include "IRemapContainer.h"

namespace Quorvendale::InterfaceContract::Details {

// The chain's sentinel: answers nothing. Its `next` is the chain's head
// pointer, and the walk ends when it comes back here.
class RemapContainerHead final : public IRemapContainer {
public:
    RemapContainerHead() noexcept { next = this; }
    RemapContainerHead(const RemapContainerHead&) = delete;
    RemapContainerHead& operator=(const RemapContainerHead&) = delete;

    void find(const InterfaceId&, void** out, bool*) noexcept override { *out = nullptr; }
};

}  // namespace Quorvendale::InterfaceContract::Details
