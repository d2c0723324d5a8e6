// A caller-side array-out for tests: receives what a table entry copies out
// and remembers how it was called.
#pragma once

#include <cstdint>
#include <string>

#include "Quorvendale/InterfaceContract.h"

namespace Quorvendale::Testing {

struct ArrayOut {
    std::string bytes;
    int calls = 0;
    bool answerNull = false;  // hand the callee a null buffer

    static void* QV_CALL allocate(void* context, std::uint32_t length) {
        auto* self = static_cast<ArrayOut*>(context);
        ++self->calls;
        self->bytes.assign(length, '\xEE');
        return self->answerNull ? nullptr : self->bytes.data();
    }
};

// The calling thread's message, read the way a program does: through
// IExceptionData of the object whose call failed.
template <class Interface>
std::string messageOf(Interface* object) {
    InterfaceContract::IExceptionData* data = nullptr;
    object->table->queryInterface(object, &InterfaceContract::IID_IExceptionData,
                                  reinterpret_cast<void**>(&data));
    ArrayOut out;
    data->table->getMessage(data, &out, &ArrayOut::allocate);
    return out.bytes;
}

}  // namespace Quorvendale::Testing
