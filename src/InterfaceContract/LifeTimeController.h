#pragma once

#include <atomic>
#include <cstdint>

#include "Details/InterfaceRemap.h"
#include "Details/RemapContainer.h"
#include "Details/RemapContainerHead.h"
#include "LifetimeControllerBase.h"

namespace Quorvendale::InterfaceContract {

// Reference counting and interface lookup for an object reachable through
// several tables. Every class in the hierarchy links its containers in its
// constructor; the chain is walked newest first, so the most-derived
// interface answers before any base's, and it never changes afterwards, which
// is why lookups need no lock. Both counts are sequentially consistent
// atomics: addRef and release may run on any thread at once.
//
// Objects are born with both counts 0; the factory that makes one hands it out
// (OutSlot.h) and the caller's last release destroys it, exactly once.
template <int N>
class LifeTimeController : public virtual LifetimeControllerBase {
public:
    // Called when the interface count reaches zero, before the object dies.
    virtual void onInterfacesReleased(int) {}

    ResultCode queryInterface(const InterfaceId* id, void** out) noexcept {
        if (out == nullptr) return QV_E_POINTER;
        *out = nullptr;
        if (id == nullptr) return QV_E_INVALIDARG;
        for (Details::IRemapContainer* link = head_.next; link != &head_; link = link->next) {
            bool counted = false;
            link->find(*id, out, &counted);
            if (*out != nullptr) {
                if (counted) addRef();
                return QV_S_OK;
            }
        }
        return QV_E_NOINTERFACE;
    }

    std::uint32_t addRef() noexcept {
        const std::uint32_t count = interfaceCount_.fetch_add(1) + 1;
        lifetimeCount.fetch_add(1);
        return count;
    }

    std::uint32_t release() noexcept {
        const std::uint32_t before = interfaceCount_.fetch_sub(1);
        if (before == 1) onInterfacesReleased(0);
        if (lifetimeCount.fetch_sub(1) == 1) destroy();
        return before - 1;
    }

protected:
    LifeTimeController() noexcept {
        link(interfaceContainer_, this);
        link(exceptionDataContainer_, this);
    }

    // Puts `container` at the front of the chain, owned by `owner`.
    template <class Patch>
    void link(Details::RemapContainer<Patch>& container,
              typename Patch::Implementation* owner) noexcept {
        container.next = head_.next;
        container.patch.owner = owner;
        head_.next = &container;
    }

private:
    template <class Interface>
    using OwnRemap = Details::InterfaceRemap<Interface, LifeTimeController, LifeTimeController>;

    Details::RemapContainerHead head_;
    std::atomic<std::uint32_t> interfaceCount_{0};
    Details::RemapContainer<Details::RemapPatch<OwnRemap<IInterface>>> interfaceContainer_;
    Details::RemapContainer<Details::RemapPatch<OwnRemap<IExceptionData>>> exceptionDataContainer_;
};

// The base that the library's objects name.
class InterfacedObject : public LifeTimeController<0> {};

// The chain link through which an Implementation object answers Interface:
// a member of the object, linked in its constructor.
template <class Interface, class Implementation>
using InterfaceContainer = Details::RemapContainer<
    Details::RemapPatch<Details::InterfaceRemap<Interface, Implementation, Implementation>>>;

}  // namespace Quorvendale::InterfaceContract
