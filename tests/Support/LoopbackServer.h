// A TCP server on 127.0.0.1: a thread that serves one scripted answer per
// connection, in order, and records what each connection sent. Every wait is
// bounded, so a test that goes wrong fails, never hangs.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Support/LoopbackSocket.h"

namespace Quorvendale::Testing {

// An 8-byte little-endian length (the body's own unless told otherwise), then the body.
inline std::string frame(const std::string& body, std::uint64_t length) {
    std::string bytes;
    for (int i = 0; i < 8; ++i) bytes += static_cast<char>(length >> (8 * i));
    return bytes + body;
}
inline std::string frame(const std::string& body) { return frame(body, body.size()); }

// A response body with a payload below 128 bytes.
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
        closeSocket(listener_.handle);
    }

    std::uint16_t port() const { return listener_.port; }

    std::vector<std::string> received() const {
        std::lock_guard lock(mutex_);
        return received_;
    }

private:
    // In short steps, so that a stop is seen.
    bool waitFor(SocketHandle handle) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!stop_ && std::chrono::steady_clock::now() < deadline) {
            if (readable(handle, 20)) return true;
        }
        return false;
    }

    void serve() {
        for (const Answer& answer : answers_) {
            if (!waitFor(listener_.handle)) return;
            const SocketHandle connection = acceptConnection(listener_.handle);
            {
                std::lock_guard lock(mutex_);
                received_.emplace_back();
            }
            if (answer.readFrame && receive(connection, 8)) {
                std::uint64_t bodyLength = 0;
                for (int i = 7; i >= 0; --i)
                    bodyLength = bodyLength << 8 | static_cast<std::uint8_t>(received().back()[i]);
                receive(connection, std::min<std::uint64_t>(bodyLength, 1 << 20));
            }
            sendBytes(connection, answer.bytes);
            while (answer.holdOpen && receive(connection, 1)) {
            }
            closeSocket(connection);
        }
    }

    // Receives and records exactly `length` bytes; false if they do not come.
    bool receive(SocketHandle connection, std::size_t length) {
        char bytes[4096];
        while (length > 0 && waitFor(connection)) {
            const long count = receiveSome(connection, bytes, std::min(length, sizeof bytes));
            if (count <= 0) return false;
            std::lock_guard lock(mutex_);
            received_.back().append(bytes, static_cast<std::size_t>(count));
            length -= static_cast<std::size_t>(count);
        }
        return length == 0;
    }

    const std::vector<Answer> answers_;
    const LoopbackListener listener_;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_;
    std::vector<std::string> received_;
    std::thread thread_;
};

}  // namespace Quorvendale::Testing
