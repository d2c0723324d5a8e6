#include "TcpClient.h"

#include "NetworkException.h"

namespace Quorvendale::Networking {

TcpClient::~TcpClient() {
    socket_.reset();
    connected_ = false;
    closed_ = true;
}

bool TcpClient::connect(const char* hostname, std::uint32_t port,
                        std::uint32_t timeoutMilliseconds) {
    if (closed_) throw new NetworkException("Client closed, cannot reuse client!");
    if (hostname == nullptr) throw new NetworkException("hostname is null");
    if (connected_) throw new NetworkException("Already connected");
    IPAddress address;
    if (!IPAddress::tryParse(hostname, address)) {
        throw NetworkException(
            "hostname is invalid or requires DNS lookup, which is not supported yet");
    }
    if (!socket_) {
        socket_ = std::make_unique<Socket>(static_cast<std::int32_t>(address.family()),
                                           socketTypeStream, protocolTcp);
    }
    if (!socket_->connect(address, port, timeoutMilliseconds)) return false;
    family_ = address.family();
    connected_ = true;
    return true;
}

}  // namespace Quorvendale::Networking
