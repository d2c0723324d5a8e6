// Interface out-slots: the caller's `I** out` is assigned like an owning
// smart pointer, and a factory hands a new object over with exactly one
// reference for the caller.
#pragma once

#include <stdexcept>

#include "LifeTimeController.h"

namespace Quorvendale::InterfaceContract {

// A different non-null pointer already in the slot is cleared and released
// first; then `value` is stored and, if not null, takes a reference.
template <class Interface>
void assignOutSlot(Interface** slot, Interface* value) noexcept {
    Interface* previous = *slot;
    if (previous != nullptr && previous != value) {
        *slot = nullptr;
        previous->table->release(previous);
    }
    *slot = value;
    if (value != nullptr) value->table->addRef(value);
}

// Takes a temporary reference through the object's most-derived table for
// `id`, assigns it to the slot, and drops the temporary one: the caller ends
// holding the only reference.
template <class Interface, int N>
void handOut(LifeTimeController<N>& object, const InterfaceId& id, Interface** slot) {
    void* temporary = nullptr;
    if (object.queryInterface(&id, &temporary) != QV_S_OK) {
        throw std::logic_error("object does not answer the interface it is handed out as");
    }
    auto* pointer = static_cast<Interface*>(temporary);
    assignOutSlot(slot, pointer);
    pointer->table->release(pointer);
}

}  // namespace Quorvendale::InterfaceContract
