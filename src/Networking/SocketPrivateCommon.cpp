#include "SocketPrivateCommon.h"

#include "NetworkException.h"
#include "SocketError.h"

namespace Quorvendale::Networking {

bool SocketPrivateCommon::connect(const IPEndPoint& endPoint, const SocketAddress& address,
                                  std::uint32_t timeoutMilliseconds) {
    const bool result = connectNative(address, timeoutMilliseconds);
    if (result) {
        connected_.store(true);
        remoteEndPoint_ = IPEndPoint(endPoint.address(), endPoint.port());
    }
    return result;
}

std::int32_t SocketPrivateCommon::sendSome(const char* buffer, std::int32_t length,
                                           std::int32_t flags, std::int32_t& error) {
    if (buffer == nullptr) throw NetworkException("Unable to send null buffer in socket");
    error = 0;
    const std::int32_t count = sendNative(buffer, length, flags);
    if (count >= 0) return count;
    error = lastError();
    if (failureEndsConnection(error)) connected_.store(false);
    return 0;
}

std::int32_t SocketPrivateCommon::receiveSome(char* buffer, std::int32_t length, std::int32_t flags,
                                              std::int32_t& error) {
    error = 0;
    const std::int32_t count = receiveNative(buffer, length, flags);
    if (count >= 0) {
        // An orderly close by the peer; the flag stays as it is and the
        // caller's loop ends on the error.
        if (count == 0 && length > 0) error = WSAENOTCONN;
        return count;
    }
    error = lastError();
    if (failureEndsConnection(error)) connected_.store(false);
    return 0;
}

bool SocketPrivateCommon::failureEndsConnection(std::int32_t error) const noexcept {
    if (!connected_.load()) return false;
    const bool transient =
        error == WSAEWOULDBLOCK || error == WSA_IO_PENDING || error == WSAENOBUFS;
    return !(handle_ != INVALID_SOCKET && transient);
}

}  // namespace Quorvendale::Networking
