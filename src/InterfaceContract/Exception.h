// The contract's own exception: a result code and a text, handed to the
// caller unchanged by the boundary guard. Callers of the library may raise it
// through code of theirs that the library calls back; the library itself
// raises only standard exceptions.
#pragma once

#include <stdexcept>
#include <string>

#include "Quorvendale/InterfaceContract.h"

namespace Quorvendale::InterfaceContract {

class Exception : public std::runtime_error {
public:
    Exception(ResultCode code, const std::string& message)
        : std::runtime_error(message), code_(code) {}

    ResultCode code() const noexcept { return code_; }
    const char* message() const noexcept { return what(); }

private:
    ResultCode code_;
};

}  // namespace Quorvendale::InterfaceContract
