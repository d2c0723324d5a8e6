// The two exceptions of the networking layer.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Quorvendale::Networking {

// A network-layer error that has no socket error number.
class NetworkException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A failed socket-option or shut-down call. The message is the fixed text
// alone; the socket error number (SocketError.h) is kept beside it.
class SocketErrorException : public NetworkException {
public:
    SocketErrorException(std::uint32_t code, const std::string& message)
        : NetworkException(message), errorCode(code) {}

    std::uint32_t errorCode;
};

}  // namespace Quorvendale::Networking
