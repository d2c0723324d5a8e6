#include "Failure.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "Platform/AppService/AppServiceBus.h"
#include "Posix/FileDescriptor.h"
#include "Quorvendale/Client.hpp"

namespace Quorvendale::Qvstore {
namespace {

// Why no session bus answers at the address the library uses, if qvstore can
// tell: the library's own address rule and a connect to a Unix socket address.
std::optional<std::string> missingSessionBus() {
    const std::string address = Platform::AppServiceBus::sessionBusAddress();
    if (address.empty()) {
        return "no session bus: neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set";
    }
    const std::string first = address.substr(0, address.find(';'));
    sockaddr_un socketAddress{};
    socketAddress.sun_family = AF_UNIX;
    std::string path;
    bool abstract = false;
    for (const std::string_view key : {"path=", "abstract="}) {
        const std::size_t at = first.find(key, first.find(':'));
        if (first.starts_with("unix:") && at != std::string::npos) {
            path = first.substr(at + key.size(), first.find(',', at) - at - key.size());
            abstract = key == "abstract=";
        }
    }
    if (path.empty() || path.size() >= sizeof socketAddress.sun_path) return std::nullopt;
    std::memcpy(socketAddress.sun_path + (abstract ? 1 : 0), path.data(), path.size());
    const Posix::FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe.valid()) return std::nullopt;
    const socklen_t length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (abstract ? 1 : 0));
    if (::connect(probe.get(), reinterpret_cast<sockaddr*>(&socketAddress), length) == 0) {
        return std::nullopt;
    }
    const int error = errno;
    return "no session bus at " + path + ": " + std::strerror(error);
}

}  // namespace

Failure failureOf(const Client::Error& error) {
    if (dynamic_cast<const Client::NotFound*>(&error) != nullptr) return {keyMissing, "no such key"};
    if (dynamic_cast<const Client::Refused*>(&error) != nullptr) {
        return {usageFailed, "refused: " + oneLine(error.message())};
    }
    if (const auto* unreachable = dynamic_cast<const Client::Unreachable*>(&error)) {
        if (unreachable->status().empty() && unreachable->report().empty()) {
            // A remote client: its own text says what failed.
            return {ExitStatus::unreachable,
                    "the storage server cannot be reached: " + oneLine(error.message())};
        }
        // qvstore can tell whether a session bus is there.
        if (unreachable->status() == "AppUnavailable") {
            return {ExitStatus::unreachable,
                    "the storage service cannot be reached: " +
                        oneLine(missingSessionBus().value_or("it failed to start or to answer")) +
                        " (AppUnavailable)"};
        }
        return {ExitStatus::unreachable, oneLine(error.what())};
    }
    return {storeFailed, oneLine(error.message())};
}

std::string oneLine(std::string_view text) {
    std::string line;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            line += escaped;
        } else {
            line += c;
        }
    }
    return line;
}

}  // namespace Quorvendale::Qvstore
