#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "Support/LoopbackSocket.h"

namespace Quorvendale::Testing {

namespace {

int descriptor(SocketHandle handle) { return static_cast<int>(handle); }

}  // namespace

LoopbackListener listenOnLoopback(int backlog) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {loopback}, {}};
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (fd < 0 || ::bind(fd, generic, size) < 0 || (backlog > 0 && ::listen(fd, backlog) < 0) ||
        ::getsockname(fd, generic, &size) < 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    return {static_cast<SocketHandle>(fd), ntohs(address.sin_port)};
}

bool readable(SocketHandle handle, int milliseconds) {
    pollfd watched{descriptor(handle), POLLIN, 0};
    return ::poll(&watched, 1, milliseconds) > 0;
}

SocketHandle acceptConnection(SocketHandle listener) {
    const int connection = ::accept4(descriptor(listener), nullptr, nullptr, SOCK_CLOEXEC);
    const int on = 1;
    ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return static_cast<SocketHandle>(connection);
}

long receiveSome(SocketHandle handle, char* buffer, std::size_t size) {
    return ::recv(descriptor(handle), buffer, size, 0);
}

void sendBytes(SocketHandle handle, const std::string& bytes) {
    ::send(descriptor(handle), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void closeSocket(SocketHandle handle) { ::close(descriptor(handle)); }

SocketHandle newTcpSocket() {
    return static_cast<SocketHandle>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

bool isOpenSocket(SocketHandle handle) {
    int type = 0;
    socklen_t size = sizeof type;
    return ::getsockopt(descriptor(handle), SOL_SOCKET, SO_TYPE, &type, &size) == 0;
}

}  // namespace Quorvendale::Testing
