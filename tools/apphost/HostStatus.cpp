#include "HostStatus.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Platform/AppService/AppServiceStatistics.h"

namespace Quorvendale::AppHost {
namespace {

using Platform::AppServiceStatistics;

// 3456 -> "3,456"
std::string withThousands(std::uint64_t number) {
    std::string digits = std::to_string(number);
    for (auto at = static_cast<std::ptrdiff_t>(digits.size()) - 3; at > 0; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), ",");
    }
    return digits;
}

std::uint64_t requestCount(const AppServiceStatistics::Snapshot& snapshot) {
    std::uint64_t total = 0;
    for (const auto& [command, count] : snapshot.requests) total += count;
    return total;
}

// A datagram socket connected to the manager's address: a connected socket
// sends without looking its path up again.
Posix::FileDescriptor connectToServiceManager() {
    const char* address = std::getenv("NOTIFY_SOCKET");
    if (address == nullptr || (address[0] != '/' && address[0] != '@')) return {};
    sockaddr_un peer{};
    peer.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(address);
    if (length >= sizeof peer.sun_path) return {};
    std::memcpy(peer.sun_path, address, length);
    if (peer.sun_path[0] == '@') peer.sun_path[0] = '\0';  // an abstract address
    Posix::FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    if (!socket.valid() || ::connect(socket.get(), reinterpret_cast<sockaddr*>(&peer), size) != 0) {
        return {};
    }
    return socket;
}

}  // namespace

HostStatus::HostStatus()
    : startedAt_(static_cast<std::uint64_t>(
          std::chrono::duration_cast<std::chrono::microseconds>(
              std::chrono::system_clock::now().time_since_epoch())
              .count())),
      notifySocket_(connectToServiceManager()) {}

void HostStatus::connectionOpened(std::size_t connectionsNow) {
    connectionsNow_ = connectionsNow;
    connectionsPeak_ = std::max(connectionsPeak_, connectionsNow);
}

void HostStatus::connectionRefused() { ++connectionsRefused_; }

std::string HostStatus::summary() const {
    const auto snapshot = AppServiceStatistics::snapshot();
    return withThousands(connectionsNow_) + " connections, " +
           withThousands(requestCount(snapshot)) + " requests";
}

void HostStatus::notifyServiceManager() {
    if (!notifySocket_.valid()) return;
    std::string message = "STATUS=" + summary();
    if (message == lastNotified_) return;
    notify(message);
    lastNotified_ = std::move(message);
}

void HostStatus::notifyStopping() { notify("STOPPING=1"); }

void HostStatus::notify(const std::string& message) const {
    if (!notifySocket_.valid()) return;
    [[maybe_unused]] const auto sent =
        ::send(notifySocket_.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

int HostStatus::appendProperty(std::string_view name, sd_bus_message* reply) const {
    if (name == "Version") return sd_bus_message_append(reply, "s", QV_VERSION);
    if (name == "ProcessId") {
        return sd_bus_message_append(reply, "u", static_cast<std::uint32_t>(::getpid()));
    }
    if (name == "StartedAt") return sd_bus_message_append(reply, "t", startedAt_);
    if (name == "Connections") {
        return sd_bus_message_append(reply, "u", static_cast<std::uint32_t>(connectionsNow_));
    }
    if (name == "ConnectionsPeak") {
        return sd_bus_message_append(reply, "u",
                                     static_cast<std::uint32_t>(connectionsPeak_));
    }
    if (name == "ConnectionsRefused") {
        return sd_bus_message_append(reply, "t", connectionsRefused_);
    }
    const auto snapshot = AppServiceStatistics::snapshot();
    if (name == "Requests") {
        int result = sd_bus_message_open_container(reply, 'a', "{st}");
        for (const auto& [command, count] : snapshot.requests) {
            if (result >= 0) result = sd_bus_message_append(reply, "{st}", command.c_str(), count);
        }
        return result < 0 ? result : sd_bus_message_close_container(reply);
    }
    const std::pair<std::string_view, std::uint64_t> counters[] = {
        {"RequestsFailed", snapshot.requestsFailed},
        {"PeersCutOff", snapshot.peersCutOff},
        {"BytesReceived", snapshot.bytesReceived},
        {"BytesSent", snapshot.bytesSent},
        {"FrameMemoryInUse", snapshot.frameMemoryInUse},
        {"FrameMemoryCeiling", snapshot.frameMemoryCeiling},
    };
    for (const auto& [counter, value] : counters) {
        if (name == counter) return sd_bus_message_append(reply, "t", value);
    }
    return -ENOENT;
}

}  // namespace Quorvendale::AppHost
