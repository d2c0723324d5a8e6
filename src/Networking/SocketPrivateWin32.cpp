// The Windows socket backend: every Winsock call of the networking layer.
// Winsock's error numbers are the ones the rest of the layer speaks, so
// nothing is translated here.
#include "NetworkException.h"
#include "SocketError.h"
#include "SocketPrivate.h"

// After the layer's own headers: Winsock defines its constants as macros of
// the same names and values.
#include <winsock2.h>

#include <atomic>
#include <cstring>
#include <stdexcept>

namespace Quorvendale::Networking {
namespace {

SOCKET native(SocketHandle handle) { return static_cast<SOCKET>(handle); }

[[noreturn]] void failOption(const char* message) {
    throw SocketErrorException(static_cast<std::uint32_t>(::WSAGetLastError()), message);
}

// Waits for a connect under way. Windows shows a failed connect in the
// exception set and never as writable, so writable alone means connected;
// the exception set is left out, so a refused connect waits out the time
// like one that is never answered. The thread's last error says why a wait
// failed.
bool waitUntilConnected(SOCKET socket, std::uint32_t timeoutMilliseconds) {
    timeval timeout{static_cast<long>(timeoutMilliseconds / 1000),
                    static_cast<long>(timeoutMilliseconds % 1000 * 1000)};
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(socket, &writable);
    const int ready = ::select(0, nullptr, &writable, nullptr, &timeout);
    if (ready == 0) ::WSASetLastError(WSAETIMEDOUT);
    return ready > 0;
}

int optionOf(SocketPrivateCommon::Timeout which) {
    return which == SocketPrivateCommon::Timeout::Receive ? SO_RCVTIMEO : SO_SNDTIMEO;
}

}  // namespace

void SocketPrivateCommon::setTimeout(Timeout which, std::uint32_t milliseconds) {
    const DWORD value = milliseconds;
    if (::setsockopt(native(handle_), SOL_SOCKET, optionOf(which),
                     reinterpret_cast<const char*>(&value), sizeof value) < 0) {
        failOption("Failed to set socket option");
    }
}

std::uint32_t SocketPrivateCommon::getTimeout(Timeout which) {
    DWORD value = 0;
    int size = sizeof value;
    if (::getsockopt(native(handle_), SOL_SOCKET, optionOf(which), reinterpret_cast<char*>(&value),
                     &size) < 0) {
        failOption("Failed to get socket option");
    }
    return value;
}

std::int32_t SocketPrivateCommon::sendNative(const char* buffer, std::int32_t length,
                                             std::int32_t flags) noexcept {
    return ::send(native(handle_), buffer, length, flags);
}

std::int32_t SocketPrivateCommon::receiveNative(char* buffer, std::int32_t length,
                                                std::int32_t flags) noexcept {
    return ::recv(native(handle_), buffer, length, flags);
}

// Winsock is started once per process, before its first socket, and never
// cleaned up: a socket may live until the process ends. A start-up that fails
// or grants another version than 2.2 is tried again by the next socket; the
// socket is made all the same, and its creation reports the failure.
void SocketPrivate::startUp() noexcept {
    static std::atomic<bool> started{false};
    if (started.load()) return;
    WSADATA data;
    if (::WSAStartup(MAKEWORD(2, 2), &data) != 0) return;
    if (LOBYTE(data.wVersion) == 2 && HIBYTE(data.wVersion) == 2) {
        started.store(true);
    } else {
        ::WSACleanup();
    }
}

SocketPrivate::SocketPrivate(std::int32_t family, std::int32_t type, std::int32_t protocol)
    : SocketPrivateNativeBase(family, type, protocol) {
    startUp();
    const SOCKET socket = ::WSASocketW(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED);
    if (socket == INVALID_SOCKET) throw std::runtime_error("Failed to create socket");
    handle_ = static_cast<SocketHandle>(socket);
}

SocketPrivate::SocketPrivate(SocketHandle handle) : SocketPrivateNativeBase(handle) { startUp(); }

SocketPrivate::~SocketPrivate() {
    if (handle_ == INVALID_SOCKET) return;
    // A socket that never connected, or whose peer is gone, cannot be shut
    // down; closing it is all that is left, so that failure is dropped here.
    ::shutdown(native(handle_), SD_BOTH);
    closeHandle(handle_);
    connected_.store(false);
    handle_ = INVALID_SOCKET;
}

bool SocketPrivate::setBlocking(bool blocking) noexcept {
    u_long nonBlocking = blocking ? 0 : 1;
    return ::ioctlsocket(native(handle_), FIONBIO, &nonBlocking) == 0;
}

std::unique_ptr<SocketPrivateCommon> SocketPrivate::createFromHandle(SocketHandle handle) const {
    return std::make_unique<SocketPrivate>(handle);
}

bool SocketPrivate::connectNative(const SocketAddress& address,
                                  std::uint32_t timeoutMilliseconds) noexcept {
    if (!setBlocking(false)) return false;
    sockaddr_storage peer{};
    std::memcpy(&peer, address.bytes.data(), address.bytes.size());
    const SOCKET socket = native(handle_);
    if (::WSAConnect(socket, reinterpret_cast<const sockaddr*>(&peer), address.size, nullptr,
                     nullptr, nullptr, nullptr) == 0) {
        return true;
    }
    if (::WSAGetLastError() != WSAEWOULDBLOCK) return false;
    if (!waitUntilConnected(socket, timeoutMilliseconds)) return false;
    return setBlocking(true);
}

void SocketPrivate::closeHandle(SocketHandle handle) noexcept { ::closesocket(native(handle)); }

std::int32_t SocketPrivate::lastError() const noexcept { return ::WSAGetLastError(); }

}  // namespace Quorvendale::Networking
