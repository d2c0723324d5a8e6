// The POSIX socket backend: every system call of the networking layer, and
// the one translation of errno into the Windows socket numbers that the rest
// of the layer speaks.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "NetworkException.h"
#include "Posix/SystemCall.h"
#include "SocketError.h"
#include "SocketPrivate.h"

namespace Quorvendale::Networking {
namespace {

// The thread's last socket error, as WSAGetLastError keeps it.
thread_local std::int32_t lastSocketError = 0;

int descriptor(SocketHandle handle) { return static_cast<int>(handle); }

// errno -> the Windows socket number. A connect under way is "would block"
// to Windows, not "in progress"; Windows knows no descriptor numbers, so a
// closed handle is no socket; EPIPE is a write to a connection the peer
// dropped.
constexpr std::pair<int, std::int32_t> translations[] = {
    {EINTR, WSAEINTR},
    {EACCES, WSAEACCES},
    {EPERM, WSAEACCES},
    {EFAULT, WSAEFAULT},
    {EINVAL, WSAEINVAL},
    {EMFILE, WSAEMFILE},
    {ENFILE, WSAEMFILE},
    {EINPROGRESS, WSAEWOULDBLOCK},
    {EAGAIN, WSAEWOULDBLOCK},
    {EALREADY, WSAEALREADY},
    {EBADF, WSAENOTSOCK},
    {ENOTSOCK, WSAENOTSOCK},
    {EMSGSIZE, WSAEMSGSIZE},
    {EPROTOTYPE, WSAEPROTOTYPE},
    {ENOPROTOOPT, WSAENOPROTOOPT},
    {EPROTONOSUPPORT, WSAEPROTONOSUPPORT},
    {EOPNOTSUPP, WSAEOPNOTSUPP},
    {EAFNOSUPPORT, WSAEAFNOSUPPORT},
    {EADDRINUSE, WSAEADDRINUSE},
    {EADDRNOTAVAIL, WSAEADDRNOTAVAIL},
    {ENETDOWN, WSAENETDOWN},
    {ENETUNREACH, WSAENETUNREACH},
    {ENETRESET, WSAENETRESET},
    {ECONNABORTED, WSAECONNABORTED},
    {EPIPE, WSAECONNRESET},
    {ECONNRESET, WSAECONNRESET},
    {ENOMEM, WSAENOBUFS},
    {ENOBUFS, WSAENOBUFS},
    {EISCONN, WSAEISCONN},
    {ENOTCONN, WSAENOTCONN},
    {ESHUTDOWN, WSAESHUTDOWN},
    {ETIMEDOUT, WSAETIMEDOUT},
    {ECONNREFUSED, WSAECONNREFUSED},
    {EHOSTDOWN, WSAEHOSTDOWN},
    {EHOSTUNREACH, WSAEHOSTUNREACH},
};

// The one place where errno becomes a socket error number.
std::int32_t translate(int error) {
    for (const auto& [system, windows] : translations) {
        if (system == error) return windows;
    }
    return WSASYSCALLFAILURE;
}

void recordError(int error) noexcept { lastSocketError = translate(error); }

// A blocking send or receive whose SO_SNDTIMEO/SO_RCVTIMEO expired fails with
// EAGAIN, where Windows reports a time-out; only a non-blocking socket would
// block.
void recordTransferError(int fd, int error) noexcept {
    const int flags = ::fcntl(fd, F_GETFL);
    const bool blocking = flags >= 0 && (flags & O_NONBLOCK) == 0;
    lastSocketError = error == EAGAIN && blocking ? WSAETIMEDOUT : translate(error);
}

int nativeFamily(std::uint32_t family) {
    if (family == InterNetwork) return AF_INET;
    if (family == InterNetworkV6) return AF_INET6;
    return static_cast<int>(family);
}

// The socket address layouts are the system's own but for the family number.
sockaddr_storage toNative(const SocketAddress& address) {
    sockaddr_storage native{};
    std::memcpy(&native, address.bytes.data(), address.bytes.size());
    native.ss_family = static_cast<sa_family_t>(
        nativeFamily(static_cast<std::uint32_t>(address.bytes[0] | address.bytes[1] << 8)));
    return native;
}

// Waits for a connect under way. A failed connect is writable here too (on
// Windows it only shows in the exception set), so only SO_ERROR tells a
// connection from a refusal. poll, not select: select cannot watch a
// descriptor above 1023.
bool waitUntilConnected(int fd, std::uint32_t timeoutMilliseconds) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    pollfd watched{fd, POLLOUT, 0};
    const int waited = Posix::retryInterrupted([&] {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        return ::poll(&watched, 1,
                      static_cast<int>(std::clamp<long long>(left.count(), 0, INT_MAX)));
    });
    if (waited == 0) {
        lastSocketError = WSAETIMEDOUT;
        return false;
    }
    if (waited < 0) {
        recordError(errno);
        return false;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0) error = errno;
    if (error != 0) recordError(error);
    return error == 0;
}

timeval toTimeval(std::uint32_t milliseconds) {
    return {static_cast<time_t>(milliseconds / 1000),
            static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
}

int optionOf(SocketPrivateCommon::Timeout which) {
    return which == SocketPrivateCommon::Timeout::Receive ? SO_RCVTIMEO : SO_SNDTIMEO;
}

}  // namespace

void SocketPrivateCommon::setTimeout(Timeout which, std::uint32_t milliseconds) {
    const timeval value = toTimeval(milliseconds);
    if (::setsockopt(descriptor(handle_), SOL_SOCKET, optionOf(which), &value, sizeof value) < 0) {
        recordError(errno);
        throw SocketErrorException(lastSocketError, "Failed to set socket option");
    }
}

std::uint32_t SocketPrivateCommon::getTimeout(Timeout which) {
    timeval value{};
    socklen_t size = sizeof value;
    if (::getsockopt(descriptor(handle_), SOL_SOCKET, optionOf(which), &value, &size) < 0) {
        recordError(errno);
        throw SocketErrorException(lastSocketError, "Failed to get socket option");
    }
    return static_cast<std::uint32_t>(value.tv_sec * 1000 + value.tv_usec / 1000);
}

std::int32_t SocketPrivateCommon::sendNative(const char* buffer, std::int32_t length,
                                             std::int32_t flags) noexcept {
    const ssize_t count =
        ::send(descriptor(handle_), buffer, static_cast<std::size_t>(length), flags | MSG_NOSIGNAL);
    if (count < 0) recordTransferError(descriptor(handle_), errno);
    return static_cast<std::int32_t>(count);
}

std::int32_t SocketPrivateCommon::receiveNative(char* buffer, std::int32_t length,
                                                std::int32_t flags) noexcept {
    const ssize_t count =
        ::recv(descriptor(handle_), buffer, static_cast<std::size_t>(length), flags);
    if (count < 0) recordTransferError(descriptor(handle_), errno);
    return static_cast<std::int32_t>(count);
}

// POSIX sockets need no library start-up before the first socket.
void SocketPrivate::startUp() noexcept {}

SocketPrivate::SocketPrivate(std::int32_t family, std::int32_t type, std::int32_t protocol)
    : SocketPrivateNativeBase(family, type, protocol) {
    startUp();
    const int fd =
        ::socket(nativeFamily(static_cast<std::uint32_t>(family)), type | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        recordError(errno);
        throw std::runtime_error("Failed to create socket");
    }
    handle_ = static_cast<SocketHandle>(fd);
}

SocketPrivate::SocketPrivate(SocketHandle handle) : SocketPrivateNativeBase(handle) { startUp(); }

SocketPrivate::~SocketPrivate() {
    if (handle_ == INVALID_SOCKET) return;
    // A socket that never connected, or whose peer is gone, cannot be shut
    // down; closing it is all that is left, so that failure is dropped here.
    if (::shutdown(descriptor(handle_), SHUT_RDWR) < 0) recordError(errno);
    closeHandle(handle_);
    connected_.store(false);
    handle_ = INVALID_SOCKET;
}

bool SocketPrivate::setBlocking(bool blocking) noexcept {
    int nonBlocking = blocking ? 0 : 1;
    if (::ioctl(descriptor(handle_), FIONBIO, &nonBlocking) == 0) return true;
    recordError(errno);
    return false;
}

std::unique_ptr<SocketPrivateCommon> SocketPrivate::createFromHandle(SocketHandle handle) const {
    return std::make_unique<SocketPrivate>(handle);
}

bool SocketPrivate::connectNative(const SocketAddress& address,
                                  std::uint32_t timeoutMilliseconds) noexcept {
    if (!setBlocking(false)) return false;
    const sockaddr_storage native = toNative(address);
    const int fd = descriptor(handle_);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&native), address.size) == 0) return true;
    recordError(errno);
    if (lastSocketError != WSAEWOULDBLOCK) return false;
    if (!waitUntilConnected(fd, timeoutMilliseconds)) return false;
    return setBlocking(true);
}

void SocketPrivate::closeHandle(SocketHandle handle) noexcept { ::close(descriptor(handle)); }

std::int32_t SocketPrivate::lastError() const noexcept { return lastSocketError; }

}  // namespace Quorvendale::Networking
