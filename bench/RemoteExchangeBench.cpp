// One remote exchange (connect, framed request, framed response, close)
// against a loopback server, beside the same connect/send/receive/close done
// with bare system calls in the same run. Prints the ratio.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Networking/Socket.h"
#include "StorageClient/RemoteStorageClient.h"
#include "Support/LoopbackServer.h"

#include "BenchmarkRatio.h"
#include "MedianReporter.h"

namespace {

using namespace Quorvendale;
using namespace std::string_literals;

using Testing::loopback;
const std::string requestFrame = "\x05\0\0\0\0\0\0\0\x00\x04\x00\x00\x00"s;
const std::string responseFrame = "\x03\0\0\0\0\0\0\0\x00\x01\x00"s;

bool receiveExactly(int fd, char* buffer, std::size_t length) {
    while (length > 0) {
        const ssize_t count = ::recv(fd, buffer, length, 0);
        if (count <= 0) return false;
        buffer += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

// Answers every framed request with one success frame, then closes.
class Server {
public:
    Server() {
        const Testing::LoopbackListener listener = Testing::listenOnLoopback(64);
        listener_ = static_cast<int>(listener.handle);
        port = listener.port;
        thread_ = std::thread([this] { serve(); });
    }
    ~Server() {
        stop_ = true;
        thread_.join();
        ::close(listener_);
    }

    std::uint16_t port = 0;

private:
    void serve() {
        pollfd watched{listener_, POLLIN, 0};
        while (!stop_) {
            if (::poll(&watched, 1, 50) <= 0) continue;
            const int connection = ::accept(listener_, nullptr, nullptr);
            if (connection < 0) continue;
            char header[8];
            std::string body(5, '\0');
            if (receiveExactly(connection, header, 8) &&
                receiveExactly(connection, body.data(), body.size())) {
                ::send(connection, responseFrame.data(), responseFrame.size(), MSG_NOSIGNAL);
            }
            ::close(connection);
        }
    }

    int listener_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

Server* server = nullptr;

void RawExchange(benchmark::State& state) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = loopback;
    address.sin_port = htons(server->port);
    for (auto _ : state) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
            state.SkipWithError("connect failed");
        }
        ::send(fd, requestFrame.data(), 8, MSG_NOSIGNAL);
        ::send(fd, requestFrame.data() + 8, 5, MSG_NOSIGNAL);
        char response[11];
        if (!receiveExactly(fd, response, 8) || !receiveExactly(fd, response + 8, 3)) {
            state.SkipWithError("no response");
        }
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
    }
}

void RemoteExchange(benchmark::State& state) {
    const StorageClient::RemoteRequest exists{StorageClient::RemoteCommand::Exists, "", "", ""};
    for (auto _ : state) {
        Networking::Socket socket(Networking::InterNetwork, Networking::socketTypeStream,
                                  Networking::protocolTcp);
        if (!socket.connect(Networking::IPAddress(loopback), server->port, 3000)) {
            state.SkipWithError("connect failed");
        }
        benchmark::DoNotOptimize(StorageClient::RemoteStorageClient::sendMessage(socket, exists));
    }
}

BENCHMARK(RawExchange)->MinTime(0.2)->Repetitions(5);
BENCHMARK(RemoteExchange)->MinTime(0.2)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
    // Repetitions of the two run interleaved, so that both meet the same
    // conditions (every exchange leaves a connection in TIME_WAIT).
    Bench::initialize(&argc, argv, {"--benchmark_enable_random_interleaving=true"});
    Server running;
    server = &running;
    Bench::MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double raw = reporter.time("RawExchange");
    const double remote = reporter.time("RemoteExchange");
    if (raw > 0 && remote > 0) {
        std::printf(
            "median per exchange: raw %.1f us, remote %.1f us; ratio %.2fx (target <= 1.30x)\n",
            raw / 1000, remote / 1000, remote / raw);
    }
    Bench::reportRatio("RemoteExchangeBench", "exchange", raw > 0 ? remote / raw : 0, 1.3);
    benchmark::Shutdown();
    return 0;
}
