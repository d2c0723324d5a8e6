// Winsock takes the BSD socket calls; the few differences are spelled out
// at the top.
#include "Support/LoopbackSocket.h"

#include <stdexcept>

#ifdef _WIN32
#include <winsock2.h>
using AddressLength = int;
constexpr int noSignal = 0;  // Windows raises no signal for a dead peer
constexpr int closeOnExec = 0;
#else
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
using SOCKET = int;
using AddressLength = socklen_t;
constexpr int noSignal = MSG_NOSIGNAL;
constexpr int closeOnExec = SOCK_CLOEXEC;
inline int closesocket(int fd) { return ::close(fd); }
#endif

namespace Quorvendale::Testing {

namespace {

SOCKET native(SocketHandle handle) { return static_cast<SOCKET>(handle); }

}  // namespace

LoopbackListener listenOnLoopback(int backlog) {
#ifdef _WIN32
    // Started once, before the test's first socket, and left running.
    static const bool started = [] {
        WSADATA data;
        return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    if (!started) throw std::runtime_error("Winsock did not start");
#endif
    const SocketHandle handle = static_cast<SocketHandle>(::socket(AF_INET, SOCK_STREAM | closeOnExec, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = loopback;
    AddressLength size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(native(handle), generic, size) != 0 ||
        (backlog > 0 && ::listen(native(handle), backlog) != 0) ||
        ::getsockname(native(handle), generic, &size) != 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    return {handle, ntohs(address.sin_port)};
}

bool readable(SocketHandle handle, int milliseconds) {
    fd_set watched;
    FD_ZERO(&watched);
    FD_SET(native(handle), &watched);
    timeval timeout{milliseconds / 1000, milliseconds % 1000 * 1000};
    return ::select(static_cast<int>(native(handle)) + 1, &watched, nullptr, nullptr, &timeout) > 0;
}

SocketHandle acceptConnection(SocketHandle listener) {
    const SOCKET connection = ::accept(native(listener), nullptr, nullptr);
    const int on = 1;
    ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                 sizeof on);
    return static_cast<SocketHandle>(connection);
}

long receiveSome(SocketHandle handle, char* buffer, std::size_t size) {
    return ::recv(native(handle), buffer, static_cast<int>(size), 0);
}

void sendBytes(SocketHandle handle, const std::string& bytes) {
    ::send(native(handle), bytes.data(), static_cast<int>(bytes.size()), noSignal);
}

void closeSocket(SocketHandle handle) { ::closesocket(native(handle)); }

}  // namespace Quorvendale::Testing
