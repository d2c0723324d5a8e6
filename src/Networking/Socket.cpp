#include "Socket.h"

#include "SocketPrivate.h"

namespace Quorvendale::Networking {
namespace {

// The loop of sendAll and receiveAll. The first error of any kind ends the
// transfer with its number; a socket that stops being connected ends it with
// the last error.
template <class Byte, class TransferSome>
std::int32_t transferAll(const SocketPrivate& socket, Byte* buffer, std::int32_t length,
                         TransferSome transferSome) {
    if (length < 1) return 0;
    std::int32_t error = 0;
    std::int32_t done = 0;
    while (done < length) {
        if (!socket.connected()) break;
        if (error != 0) return error;
        const std::int32_t count = transferSome(buffer + done, length - done, error);
        if (count > 0) done += count;
    }
    return error;
}

}  // namespace

Socket::Socket(std::int32_t family, std::int32_t type, std::int32_t protocol)
    : private_(std::make_unique<SocketPrivate>(family, type, protocol)) {}

Socket::~Socket() = default;

bool Socket::connect(const IPAddress& address, std::uint32_t port,
                     std::uint32_t timeoutMilliseconds) {
    const IPEndPoint endPoint(address, port);
    return private_->connect(endPoint, endPoint.toSocketAddress(), timeoutMilliseconds);
}

std::int32_t Socket::sendAll(const char* buffer, std::int32_t length) {
    return transferAll(*private_, buffer, length,
                       [this](const char* at, std::int32_t count, std::int32_t& error) {
                           return private_->sendSome(at, count, 0, error);
                       });
}

std::int32_t Socket::receiveAll(char* buffer, std::int32_t length) {
    return transferAll(*private_, buffer, length,
                       [this](char* at, std::int32_t count, std::int32_t& error) {
                           return private_->receiveSome(at, count, 0, error);
                       });
}

void Socket::setReceiveTimeout(std::uint32_t milliseconds) {
    private_->setReceiveTimeout(milliseconds);
}

void Socket::setSendTimeout(std::uint32_t milliseconds) { private_->setSendTimeout(milliseconds); }

bool Socket::setBlocking(bool blocking) noexcept { return private_->setBlocking(blocking); }

bool Socket::connected() const noexcept { return private_->connected(); }

}  // namespace Quorvendale::Networking
