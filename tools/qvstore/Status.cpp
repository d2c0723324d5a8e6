#include "Status.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <variant>

#include "Failure.h"
#include "Json.h"
#include "ServiceIdentity.h"

namespace Quorvendale::Qvstore {
namespace {

// The host's object and interface (the runtime's AppServiceBus names them).
constexpr const char* hostObject = "/org/quorvendale/AppServiceHost";
constexpr const char* hostInterface = "org.quorvendale.AppServiceHost";

using Counts = std::map<std::string, std::uint64_t>;
using Value = std::variant<std::string, std::uint64_t, Counts>;
// In the order the host declares them.
using Properties = std::vector<std::pair<std::string, Value>>;

struct Unreachable {
    std::string why;
};

// The properties of one a{sv}: strings, unsigned numbers and a{st}; any
// other type the host might add later is skipped.
Properties readProperties(sd_bus_message* reply) {
    Properties properties;
    const auto check = [](int result) {
        if (result < 0) throw Unreachable{"the service's answer cannot be read: " +
                                          std::string(std::strerror(-result))};
        return result;
    };
    check(sd_bus_message_enter_container(reply, 'a', "{sv}"));
    while (check(sd_bus_message_enter_container(reply, 'e', "sv")) > 0) {
        const char* name = nullptr;
        check(sd_bus_message_read(reply, "s", &name));
        const std::string property = name;
        char type = 0;
        const char* contents = nullptr;
        check(sd_bus_message_peek_type(reply, &type, &contents));
        const std::string_view signature = contents ? contents : "";
        if (signature == "s") {
            const char* text = nullptr;
            check(sd_bus_message_read(reply, "v", "s", &text));
            properties.emplace_back(property, std::string(text));
        } else if (signature == "u") {
            std::uint32_t number = 0;
            check(sd_bus_message_read(reply, "v", "u", &number));
            properties.emplace_back(property, std::uint64_t{number});
        } else if (signature == "t") {
            std::uint64_t number = 0;
            check(sd_bus_message_read(reply, "v", "t", &number));
            properties.emplace_back(property, number);
        } else if (signature == "a{st}") {
            Counts counts;
            check(sd_bus_message_enter_container(reply, 'v', "a{st}"));
            check(sd_bus_message_enter_container(reply, 'a', "{st}"));
            const char* key = nullptr;
            std::uint64_t count = 0;
            while (check(sd_bus_message_read(reply, "{st}", &key, &count)) > 0) counts[key] = count;
            check(sd_bus_message_exit_container(reply));
            check(sd_bus_message_exit_container(reply));
            properties.emplace_back(property, std::move(counts));
        } else {
            check(sd_bus_message_skip(reply, "v"));
        }
        check(sd_bus_message_exit_container(reply));
    }
    check(sd_bus_message_exit_container(reply));
    return properties;
}

// GetAll on the host's object, with auto-start off: a service that is not
// running stays so.
Properties askTheHost() {
    sd_bus* bus = nullptr;
    if (const int opened = sd_bus_open_user(&bus); opened < 0) {
        throw Unreachable{"no session bus (" + std::string(std::strerror(-opened)) +
                          "; is DBUS_SESSION_BUS_ADDRESS set?)"};
    }
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error{};  // SD_BUS_ERROR_NULL, without its C compound literal
    int result = sd_bus_message_new_method_call(bus, &call, ServiceIdentity::packageFamilyName.data(),
                                                hostObject, "org.freedesktop.DBus.Properties",
                                                "GetAll");
    if (result >= 0) result = sd_bus_message_append(call, "s", hostInterface);
    if (result >= 0) result = sd_bus_message_set_auto_start(call, 0);
    if (result >= 0) result = sd_bus_call(bus, call, 10'000'000, &error, &reply);
    std::string why;
    if (result < 0) {
        why = sd_bus_error_has_names(&error, SD_BUS_ERROR_SERVICE_UNKNOWN,
                                     SD_BUS_ERROR_NAME_HAS_NO_OWNER)
                  ? "the storage service is not running (the session bus starts it on first use)"
                  : "the storage service did not answer: " +
                        std::string(error.message ? error.message : std::strerror(-result));
    }
    Properties properties;
    if (why.empty()) {
        try {
            properties = readProperties(reply);
        } catch (const Unreachable& unreadable) {
            why = unreadable.why;
        }
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    sd_bus_flush_close_unref(bus);
    if (!why.empty()) throw Unreachable{why};
    return properties;
}

std::uint64_t number(const Properties& properties, std::string_view name) {
    for (const auto& [property, value] : properties) {
        if (property == name) {
            if (const auto* found = std::get_if<std::uint64_t>(&value)) return *found;
        }
    }
    return 0;
}

std::string text(const Properties& properties, std::string_view name) {
    for (const auto& [property, value] : properties) {
        if (property == name) {
            if (const auto* found = std::get_if<std::string>(&value)) return *found;
        }
    }
    return "?";
}

Counts counts(const Properties& properties, std::string_view name) {
    for (const auto& [property, value] : properties) {
        if (property == name) {
            if (const auto* found = std::get_if<Counts>(&value)) return *found;
        }
    }
    return {};
}

// "2026-11-24 10:40:01 UTC, 5 min ago"
std::string startedText(std::uint64_t microseconds) {
    const std::time_t started = static_cast<std::time_t>(microseconds / 1'000'000);
    std::tm utc{};
    char when[32] = "?";
    if (::gmtime_r(&started, &utc) != nullptr) {
        std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &utc);
    }
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    const long long ago = std::max<long long>(0, now - static_cast<long long>(started));
    const std::string agoText = ago < 120    ? std::to_string(ago) + " s"
                                : ago < 7200 ? std::to_string(ago / 60) + " min"
                                             : std::to_string(ago / 3600) + " h";
    return std::string(when) + ", " + agoText + " ago";
}

void printTable(std::FILE* output, const Properties& properties) {
    const auto row = [&](const char* label, const std::string& value) {
        std::fprintf(output, "%-14s %s\n", label, value.c_str());
    };
    const auto n = [&](std::string_view name) { return std::to_string(number(properties, name)); };
    std::uint64_t requests = 0;
    std::string byCommand;
    for (const auto& [command, count] : counts(properties, "Requests")) {
        requests += count;
        byCommand += (byCommand.empty() ? " (" : ", ") + command + " " + std::to_string(count);
    }
    if (!byCommand.empty()) byCommand += ")";
    row("service", std::string(ServiceIdentity::packageFamilyName) + ", running");
    row("version", text(properties, "Version"));
    row("pid", n("ProcessId"));
    row("started", startedText(number(properties, "StartedAt")));
    row("connections", n("Connections") + " now, " + n("ConnectionsPeak") + " at most, " +
                           n("ConnectionsRefused") + " refused");
    row("requests", std::to_string(requests) + byCommand + ", " + n("RequestsFailed") + " failed");
    row("peers cut off", n("PeersCutOff"));
    row("bytes", n("BytesReceived") + " received, " + n("BytesSent") + " sent");
    row("frame memory", n("FrameMemoryInUse") + " of " + n("FrameMemoryCeiling") + " bytes");
}

void printJson(std::FILE* output, const Properties& properties) {
    std::string json = "{";
    for (const auto& [name, value] : properties) {
        json += (json.size() > 1 ? "," : "") + jsonString(name) + ":";
        if (const auto* string = std::get_if<std::string>(&value)) {
            json += jsonString(*string);
        } else if (const auto* count = std::get_if<std::uint64_t>(&value)) {
            json += std::to_string(*count);
        } else {
            std::string object = "{";
            for (const auto& [key, n] : std::get<Counts>(value)) {
                object += (object.size() > 1 ? "," : "") + jsonString(key) + ":" + std::to_string(n);
            }
            json += object + "}";
        }
    }
    std::fprintf(output, "%s}\n", json.c_str());
}

}  // namespace

int runStatus(std::FILE* output, bool json) {
    Properties properties;
    try {
        properties = askTheHost();
    } catch (const Unreachable& unreachable) {
        std::fprintf(stderr, "qvstore: status: %s\n", unreachable.why.c_str());
        return ExitStatus::unreachable;
    }
    json ? printJson(output, properties) : printTable(output, properties);
    return std::fflush(output) == 0 ? ExitStatus::succeeded : ExitStatus::storeFailed;
}

}  // namespace Quorvendale::Qvstore
