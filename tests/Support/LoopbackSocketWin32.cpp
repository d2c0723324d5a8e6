#include <winsock2.h>

#include <stdexcept>

#include "Support/LoopbackSocket.h"

namespace Quorvendale::Testing {

namespace {

// Winsock is started once, before the test's first socket, and left running.
void startWinsock() {
    static const bool started = [] {
        WSADATA data;
        return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    if (!started) throw std::runtime_error("Winsock did not start");
}

SOCKET native(SocketHandle handle) { return static_cast<SOCKET>(handle); }

}  // namespace

LoopbackListener listenOnLoopback(int backlog) {
    startWinsock();
    const SOCKET socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = loopback;
    int size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (socket == INVALID_SOCKET || ::bind(socket, generic, size) != 0 ||
        (backlog > 0 && ::listen(socket, backlog) != 0) ||
        ::getsockname(socket, generic, &size) != 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    return {static_cast<SocketHandle>(socket), ntohs(address.sin_port)};
}

bool readable(SocketHandle handle, int milliseconds) {
    fd_set watched;
    FD_ZERO(&watched);
    FD_SET(native(handle), &watched);
    timeval timeout{milliseconds / 1000, milliseconds % 1000 * 1000};
    return ::select(0, &watched, nullptr, nullptr, &timeout) > 0;
}

SocketHandle acceptConnection(SocketHandle listener) {
    const SOCKET connection = ::accept(native(listener), nullptr, nullptr);
    const BOOL on = TRUE;
    ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                 sizeof on);
    return static_cast<SocketHandle>(connection);
}

long receiveSome(SocketHandle handle, char* buffer, std::size_t size) {
    return ::recv(native(handle), buffer, static_cast<int>(size), 0);
}

void sendBytes(SocketHandle handle, const std::string& bytes) {
    ::send(native(handle), bytes.data(), static_cast<int>(bytes.size()), 0);
}

void closeSocket(SocketHandle handle) { ::closesocket(native(handle)); }

SocketHandle newTcpSocket() {
    startWinsock();
    return static_cast<SocketHandle>(::socket(AF_INET, SOCK_STREAM, 0));
}

bool isOpenSocket(SocketHandle handle) {
    int type = 0;
    int size = sizeof type;
    return ::getsockopt(native(handle), SOL_SOCKET, SO_TYPE, reinterpret_cast<char*>(&type),
                        &size) == 0;
}

}  // namespace Quorvendale::Testing
