// The boundary guard: no exception crosses an operation table. Every table
// entry runs its body (argument copies included) inside guard(), which turns
// an escaping exception into a ResultCode and leaves its text in the calling
// thread's message slot, where IExceptionData::getMessage finds it.
#pragma once

#include <string>

#include "Quorvendale/InterfaceContract.h"

namespace Quorvendale::InterfaceContract {

// The calling thread's last failure text. Created empty on first use in a
// thread and destroyed with it; a success never clears it.
std::string& threadMessage() noexcept;

// Translates the exception being handled, in this order:
//   Exception               -> its code,        its message
//   std::invalid_argument   -> QV_E_INVALIDARG, what()
//   std::bad_alloc          -> QV_E_OUTOFMEMORY, what()
//   std::exception          -> QV_E_FAIL,       what()
//   anything else           -> QV_E_FAIL,       empty text
// Call it only inside a catch block.
ResultCode translateCurrentException() noexcept;

template <class Body>
ResultCode guard(Body&& body) noexcept {
    try {
        body();
        return QV_S_OK;
    } catch (...) {
        return translateCurrentException();
    }
}

}  // namespace Quorvendale::InterfaceContract
