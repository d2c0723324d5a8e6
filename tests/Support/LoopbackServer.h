// A TCP server on 127.0.0.1 for tests: a thread of the test process on an
// ephemeral port that serves one scripted answer per connection, in order,
// records what each connection sent, and stops by itself once every answer is
// served. Every wait is bounded, so a test that goes wrong fails, never hangs.
#pragma once

#include <endian.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Quorvendale::Testing {

// 127.0.0.1 as it lies in a socket address.
inline constexpr std::uint32_t loopback = 0x0100007F;

// A listening TCP socket on 127.0.0.1 at an ephemeral port, and that port.
struct LoopbackListener {
    int descriptor;
    std::uint16_t port;
};

inline LoopbackListener listenOnLoopback(int backlog) {
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {loopback}, {}};
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (descriptor < 0 || ::bind(descriptor, generic, size) < 0 ||
        ::listen(descriptor, backlog) < 0 || ::getsockname(descriptor, generic, &size) < 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    return {descriptor, ntohs(address.sin_port)};
}

// An 8-byte little-endian length (the body's own unless told otherwise), then the body.
inline std::string frame(const std::string& body, std::uint64_t length) {
    std::string bytes;
    for (int i = 0; i < 8; ++i) bytes += static_cast<char>(length >> (8 * i));
    return bytes + body;
}
inline std::string frame(const std::string& body) { return frame(body, body.size()); }

// A response body; the payload is shorter than 128 bytes.
inline std::string responseBody(char status, const std::string& payload, char version = 0) {
    return std::string{version, status, static_cast<char>(payload.size())} + payload;
}

class LoopbackServer {
public:
    struct Answer {
        std::string bytes;      // sent in one send, then the connection is closed
        bool readFrame = true;  // first read one framed request
        bool holdOpen = false;  // instead of closing, wait for the client to close
    };

    explicit LoopbackServer(std::vector<Answer> answers)
        : answers_(std::move(answers)), listener_(listenOnLoopback(8)) {
        thread_ = std::thread([this] { serve(); });
    }

    ~LoopbackServer() {
        stop_ = true;
        thread_.join();
        ::close(listener_.descriptor);
    }

    std::uint16_t port() const { return listener_.port; }

    std::vector<std::string> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }

private:
    // Waits in short steps, so that a stop is seen; false when stopping or
    // after 30 s.
    bool waitFor(int fd) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        pollfd watched{fd, POLLIN, 0};
        while (!stop_ && std::chrono::steady_clock::now() < deadline) {
            if (::poll(&watched, 1, 20) > 0) return true;
        }
        return false;
    }

    void serve() {
        for (const Answer& answer : answers_) {
            if (!waitFor(listener_.descriptor)) return;
            const int connection = ::accept4(listener_.descriptor, nullptr, nullptr, SOCK_CLOEXEC);
            const int on = 1;
            ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            {
                std::lock_guard lock(mutex_);
                received_.emplace_back();
            }
            if (answer.readFrame) {
                std::uint64_t length = 0;
                if (receive(connection, 8, reinterpret_cast<char*>(&length))) {
                    receive(connection, std::min<std::uint64_t>(le64toh(length), 1 << 20));
                }
            }
            ::send(connection, answer.bytes.data(), answer.bytes.size(), MSG_NOSIGNAL);
            while (answer.holdOpen && receive(connection, 1)) {
            }
            ::close(connection);
        }
    }

    // Receives and records exactly `length` bytes; false if they do not come.
    bool receive(int connection, std::size_t length, char* copy = nullptr) {
        std::string bytes(length, '\0');
        for (std::size_t done = 0; done < length;) {
            if (!waitFor(connection)) return false;
            const long count = ::recv(connection, bytes.data() + done, length - done, 0);
            if (count <= 0) return false;
            std::lock_guard lock(mutex_);
            received_.back().append(bytes, done, static_cast<std::size_t>(count));
            done += static_cast<std::size_t>(count);
        }
        if (copy != nullptr) bytes.copy(copy, length);
        return true;
    }

    const std::vector<Answer> answers_;
    const LoopbackListener listener_;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> received_;
    std::thread thread_;
};

}  // namespace Quorvendale::Testing
