#include "Failure.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "Posix/FileDescriptor.h"

namespace Quorvendale::Qvstore {
namespace {

constexpr std::string_view reportField = "\n\tmessage: ";

// The store's text for an entry file that is not there.
bool isMissingEntry(std::string_view message) {
    return message.starts_with("Read file error: file ") && message.ends_with(" is not exist");
}

// Texts with which the store itself refuses an operation; from a remote
// server anything else means it was not reached.
bool isStoreMessage(std::string_view message) {
    constexpr std::string_view storeMessages[] = {
        "Read file error: ",       "Write file error",  "Remove file error", "Invalid key",
        "Failed to open folder: ", "Unknown exception", "Unknown command",
    };
    for (const std::string_view known : storeMessages) {
        if (message.starts_with(known)) return true;
    }
    return false;
}

// The local client's texts for a connection that failed or was lost: the
// connection's status names and the two of a send with no connection.
bool isConnectionMessage(std::string_view message) {
    constexpr std::string_view statuses[] = {
        "AppNotInstalled",
        "AppUnavailable",
        "AppServiceUnavailable",
        "Unknown",
    };
    for (const std::string_view status : statuses) {
        if (message == status) return true;
    }
    return message.starts_with("UwpLocalStorageClient::sendMessage") ||
           message.starts_with("response.Status() != ");
}

// Why no session bus answers at the address the library uses, if qvstore can
// tell: the same address rule (DBUS_SESSION_BUS_ADDRESS, else
// $XDG_RUNTIME_DIR/bus) and a connect to a Unix socket address.
std::optional<std::string> missingSessionBus() {
    std::string address;
    if (const char* given = std::getenv("DBUS_SESSION_BUS_ADDRESS"); given && *given) {
        address = given;
    } else if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        address = std::string("unix:path=") + runtime + "/bus";
    } else {
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

std::string messageOf(std::string_view text) {
    if (!text.starts_with("Exception:\n")) return std::string(text);
    const std::size_t field = text.find(reportField);
    return std::string(field == std::string_view::npos ? text
                                                       : text.substr(field + reportField.size()));
}

Failure classifyStoreFailure(std::string_view command, std::string_view message, bool remote) {
    std::string text = oneLine(message);
    if ((command == "read" && isMissingEntry(message)) ||
        (command == "next" && message == "Invalid key")) {
        return {keyMissing, std::move(text)};
    }
    if (remote ? !isStoreMessage(message) : isConnectionMessage(message)) {
        return {unreachable, "the storage " + std::string(remote ? "server" : "service") +
                                 " cannot be reached: " + text};
    }
    return {storeFailed, std::move(text)};
}

Failure describeUnreachable(std::string_view libraryOutput) {
    std::string status = "no status given";
    if (const std::size_t field = libraryOutput.rfind(reportField);
        field != std::string_view::npos) {
        const std::string_view rest = libraryOutput.substr(field + reportField.size());
        status = std::string(rest.substr(0, rest.find('\n')));
    }
    std::string why;
    if (status == "AppNotInstalled") {
        why = "it is not installed: no D-Bus service file provides it";
    } else if (status == "AppServiceUnavailable") {
        why = "its host does not offer the storage app service";
    } else if (status == "AppUnavailable") {
        why = missingSessionBus().value_or("it failed to start or to answer");
    } else {
        why = "the connection failed";
    }
    return {unreachable, "the storage service cannot be reached: " + oneLine(why) + " (" +
                             oneLine(status) + ")"};
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
