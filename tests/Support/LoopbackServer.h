// A TCP server on 127.0.0.1 for tests: a thread of the test process on an
// ephemeral port that serves one scripted answer per connection, in order,
// records the bytes each connection sent, and stops by itself once every
// answer is served. Every wait is bounded, so a test that goes wrong fails
// rather than hangs.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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
inline constexpr std::uint32_t kLoopback = 0x0100007F;

// The 8-byte little-endian length, then `body`.
inline std::string frame(const std::string& body, std::uint64_t announced) {
    std::string bytes;
    for (int i = 0; i < 8; ++i) bytes += static_cast<char>(announced >> (8 * i));
    return bytes + body;
}
inline std::string frame(const std::string& body) { return frame(body, body.size()); }

// A response body; `payload` shorter than 128 bytes.
inline std::string responseBody(std::uint8_t status, const std::string& payload,
                                std::uint8_t version = 0) {
    return std::string{static_cast<char>(version), static_cast<char>(status),
                       static_cast<char>(payload.size())} +
           payload;
}

class LoopbackServer {
public:
    struct Answer {
        std::string bytes;       // sent as they are, in one send; then the server closes
        bool readFrame = true;   // read one framed request before answering
        bool holdOpen = false;   // instead of closing, wait for the client to close
    };

    explicit LoopbackServer(std::vector<Answer> answers) : answers_(std::move(answers)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = kLoopback;
        socklen_t size = sizeof address;
        if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) < 0 ||
            ::listen(listener_, 8) < 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) < 0) {
            throw std::runtime_error("loopback server cannot listen");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }

    ~LoopbackServer() {
        stop_ = true;
        thread_.join();
        ::close(listener_);
    }

    std::uint16_t port() const { return port_; }

    // What each connection sent so far, in order of connection.
    std::vector<std::string> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr auto kLimit = std::chrono::seconds(30);

    // Waits for `events` in short steps, so that a stop is seen; false once
    // the server is stopping or the bound is reached.
    bool waitFor(int fd, short events) const {
        const auto deadline = Clock::now() + kLimit;
        pollfd watched{fd, events, 0};
        while (!stop_ && Clock::now() < deadline) {
            if (::poll(&watched, 1, 20) > 0) return true;
        }
        return false;
    }

    void serve() {
        for (const Answer& answer : answers_) {
            if (!waitFor(listener_, POLLIN)) return;
            const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) return;
            const int on = 1;
            ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            {
                std::lock_guard lock(mutex_);
                received_.emplace_back();
            }
            if (answer.readFrame) readFrame(connection);
            ::send(connection, answer.bytes.data(), answer.bytes.size(), MSG_NOSIGNAL);
            if (answer.holdOpen) {
                while (receive(connection, 4096) > 0) {}
            }
            ::close(connection);
        }
    }

    void readFrame(int connection) {
        std::size_t length = 0;
        for (int i = 0; i < 8; ++i) {
            if (receive(connection, 1) != 1) return;
            length |= std::size_t{static_cast<std::uint8_t>(lastReceived().back())} << (8 * i);
        }
        for (std::size_t left = std::min<std::size_t>(length, 1 << 20); left > 0;) {
            const long count = receive(connection, left);
            if (count <= 0) return;
            left -= static_cast<std::size_t>(count);
        }
    }

    // One bounded receive of at most `most` bytes, recorded; 0 at the end.
    long receive(int connection, std::size_t most) {
        if (!waitFor(connection, POLLIN)) return 0;
        std::string buffer(most, '\0');
        const long count = ::recv(connection, buffer.data(), most, 0);
        if (count > 0) {
            std::lock_guard lock(mutex_);
            received_.back().append(buffer, 0, static_cast<std::size_t>(count));
        }
        return count;
    }

    std::string lastReceived() const {
        std::lock_guard lock(mutex_);
        return received_.back();
    }

    const std::vector<Answer> answers_;
    int listener_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> received_;
    std::thread thread_;
};

}  // namespace Quorvendale::Testing
