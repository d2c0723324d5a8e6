#pragma once

namespace Quorvendale::InterfaceContract::Details {

// What a caller's interface pointer points at: the interface's C struct (its
// one member is the table pointer) followed by the owning object. Every thunk
// reaches its object through `owner`; the patch holds no other state.
template <class Remap>
struct RemapPatch : Remap::Interface {
    using Interface = typename Remap::Interface;
    using Implementation = typename Remap::Implementation;

    RemapPatch() noexcept : Interface{&Remap::table} {}
    RemapPatch(const RemapPatch&) = delete;
    RemapPatch& operator=(const RemapPatch&) = delete;

    Implementation* owner = nullptr;
};

}  // namespace Quorvendale::InterfaceContract::Details
