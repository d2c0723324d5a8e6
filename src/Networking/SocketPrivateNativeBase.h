#pragma once

#include "NetworkException.h"
#include "SocketPrivateCommon.h"

namespace Quorvendale::Networking {

// The base a platform backend derives its socket from.
class SocketPrivateNativeBase : public SocketPrivateCommon {
protected:
    SocketPrivateNativeBase(std::int32_t family, std::int32_t type, std::int32_t protocol) noexcept
        : SocketPrivateCommon(family, type, protocol) {}
    // Takes over `handle`; family, type and protocol are unknown (-1).
    // INVALID_SOCKET throws NetworkException "Socket handle invalid".
    explicit SocketPrivateNativeBase(SocketHandle handle) : SocketPrivateCommon(-1, -1, -1) {
        if (handle == INVALID_SOCKET) throw NetworkException("Socket handle invalid");
        handle_ = handle;
    }
};

}  // namespace Quorvendale::Networking
