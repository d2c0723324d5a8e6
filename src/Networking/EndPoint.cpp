#include "EndPoint.h"

#include "NetworkException.h"

namespace Quorvendale::Networking {

AddressFamily EndPoint::addressFamily() const {
    throw new NetworkException("Method must be overridden");
}

}  // namespace Quorvendale::Networking
