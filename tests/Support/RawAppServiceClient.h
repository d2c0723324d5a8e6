// An app-service client driven frame by frame, for tests that play a peer
// the runtime would never be: one that never reads, floods, or sends garbage.
// It opens its socket with the Open call on the bus, as the runtime does.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

#include "Platform/AppService/AppServiceBus.h"
#include "Platform/AppService/AppServiceFrame.h"
#include "Posix/FileDescriptor.h"

namespace Quorvendale::Testing {

class RawAppServiceClient {
public:
    // On a bus connection of its own, or on `shared`, as one that opens many does.
    RawAppServiceClient(const std::string& busAddress, const char* package, const char* appService,
                        sd_bus* shared = nullptr) {
        namespace Bus = Platform::AppServiceBus;
        sd_bus* bus = shared ? shared : Bus::connect(busAddress);
        sd_bus_message* reply = nullptr;
        int socket = -1;
        if (bus &&
            sd_bus_call_method(bus, package, Bus::objectPath, Bus::interfaceName, Bus::openMethod,
                               nullptr, &reply, "s", appService) >= 0 &&
            sd_bus_message_read(reply, "h", &socket) >= 0) {
            socket_.reset(::fcntl(socket, F_DUPFD_CLOEXEC, 0));  // the reply owns its own
        }
        sd_bus_message_unref(reply);
        if (!shared) sd_bus_flush_close_unref(bus);
        if (!socket_.valid()) throw std::runtime_error("the host did not open a socket");
    }

    int socket() const { return socket_.get(); }

    bool sendBytes(const std::string& bytes) const {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t count =
                ::send(socket_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count <= 0) return false;
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }
    bool sendRequest(std::uint64_t id, const Platform::ValueSet& message) const {
        using Frame = Platform::AppServiceFrame;
        return sendBytes(Frame{Frame::Kind::Request, id, message}.encode()->joined());
    }

    // The next frame, or nothing if the stream ended or stayed silent for `limit`.
    std::optional<Platform::AppServiceFrame> receive(std::chrono::milliseconds limit) const {
        std::string length(Platform::AppServiceFrame::lengthSize, '\0');
        if (!receiveExactly(length, limit)) return std::nullopt;
        std::string body(Platform::AppServiceFrame::bodyLength(length), '\0');
        if (!receiveExactly(body, limit)) return std::nullopt;
        return Platform::AppServiceFrame::decode(body);
    }

    // Reads and drops whatever is pending; true once the host has hung up.
    bool hungUpWithin(std::chrono::milliseconds limit) const {
        std::string buffer(1 << 16, '\0');
        while (receiveSome(buffer.data(), buffer.size(), limit) > 0) {
        }
        return receiveSome(buffer.data(), 1, std::chrono::milliseconds(0)) == 0;
    }

private:
    bool receiveExactly(std::string& into, std::chrono::milliseconds limit) const {
        for (std::size_t got = 0; got < into.size();) {
            const ssize_t count = receiveSome(into.data() + got, into.size() - got, limit);
            if (count <= 0) return false;
            got += static_cast<std::size_t>(count);
        }
        return true;
    }
    // -1 on silence for `limit`, 0 at the end of the stream (or a reset).
    ssize_t receiveSome(char* into, std::size_t size, std::chrono::milliseconds limit) const {
        pollfd ready{socket_.get(), POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(limit.count())) != 1) return -1;
        const ssize_t count = ::recv(socket_.get(), into, size, MSG_DONTWAIT);
        return count < 0 && errno == ECONNRESET ? 0 : count;
    }

    Posix::FileDescriptor socket_;
};

}  // namespace Quorvendale::Testing
