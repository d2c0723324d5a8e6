// The boundary's value forms on the implementation side: array-in pairs
// become strings, results leave through the caller's array-out callback,
// booleans leave as all-bits-set words.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Quorvendale/InterfaceContract.h"

namespace Quorvendale::InterfaceContract {

// Copies exactly `length` bytes. A null pointer with a non-zero length is a
// caller error (std::invalid_argument), not a crash.
std::string copyIn(const char* bytes, std::uint32_t length);

// Calls `allocate` once with the result's length (also for 0) and copies the
// bytes into the returned buffer unless it is null. A null callback or a
// result longer than 32 bits can express is a std::invalid_argument /
// std::length_error, raised before the callback is called.
void copyOut(void* context, ArrayOutAllocate allocate, std::string_view bytes);

// Checks an out-pointer argument before any work is done, so that a caller
// error loses nothing.
template <class T>
T* requireOut(T* out, const char* what) {
    if (out == nullptr) throw std::invalid_argument(std::string(what) + " is null");
    return out;
}

inline std::uint32_t booleanWord(bool value) noexcept { return value ? QV_TRUE : QV_FALSE; }

}  // namespace Quorvendale::InterfaceContract
