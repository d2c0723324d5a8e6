#pragma once

#include "SocketAddress.h"
#include "SocketTypes.h"

namespace Quorvendale::Networking {

// A network address a socket can connect to.
class EndPoint {
public:
    // Must be overridden: the base throws a heap-allocated NetworkException
    // "Method must be overridden" as a pointer, which only a catch-all sees.
    virtual AddressFamily addressFamily() const;
    virtual ~EndPoint() = default;
    virtual SocketAddress toSocketAddress() const = 0;
};

}  // namespace Quorvendale::Networking
