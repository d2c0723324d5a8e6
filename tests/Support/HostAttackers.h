// Hostile clients of the storage host, written from the frame format, and
// their table. Each runs in a process of its own, as the host counts a client
// per process: it opens its sockets with the Open call, does its harm, says
// it is in place, and keeps at it until its time is up. Its sockets give up a
// send the host has not taken for a second, so no loop waits for ever.
#pragma once

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <fstream>
#include <functional>
#include <thread>

#include "Posix/DescriptorLimit.h"
#include "ServiceIdentity.h"
#include "Support/ChildProcess.h"
#include "Support/RawAppServiceClient.h"
#include "Support/StorageMessages.h"

namespace Quorvendale::Testing::Attackers {

using Clock = std::chrono::steady_clock;
using Ready = std::function<void()>;
using Attack = std::function<void(const std::string& bus, const Ready&, Clock::time_point until)>;
using Sockets = std::vector<RawAppServiceClient>;

// `count` sockets, or as many as the host grants before `until`.
inline Sockets connect(const std::string& bus, std::size_t count, Clock::time_point until) {
    Posix::raiseDescriptorLimit();
    Sockets sockets;
    sd_bus* connection = Platform::AppServiceBus::connect(bus);
    try {
        for (const timeval second{1, 0}; sockets.size() < count && Clock::now() < until;) {
            sockets.emplace_back(bus, ServiceIdentity::packageFamilyName.data(),
                                 ServiceIdentity::appServiceName.data(), connection);
            ::setsockopt(sockets.back().socket(), SOL_SOCKET, SO_SNDTIMEO, &second, sizeof second);
        }
    } catch (const std::runtime_error&) {  // refused: it keeps what it has
    }
    sd_bus_flush_close_unref(connection);
    return sockets;
}

// `each` requests of `command` for `key` on each of `connections` sockets,
// whose answers it reads at `most` bytes a round, with `pause` between
// rounds; never, for `most` 0.
inline Attack asking(std::size_t connections, int each, const char* command, const char* key,
                     std::size_t most, std::chrono::milliseconds pause) {
    return [=](const std::string& bus, const Ready& ready, Clock::time_point until) {
        const Sockets sockets = connect(bus, connections, until);
        const auto message = request({{u"command", command}, {u"group", "attack"}, {u"key", key}});
        for (const auto& socket : sockets)
            for (int id = 1; id <= each && socket.sendRequest(id, message); ++id) {
            }
        ready();
        std::vector<pollfd> watched;
        for (const auto& socket : sockets) watched.push_back({socket.socket(), POLLIN, 0});
        std::string buffer(most, '\0');
        while (most > 0 && Clock::now() < until) {
            for (pollfd& one : watched) {
                const ssize_t got = ::recv(one.fd, buffer.data(), most, MSG_DONTWAIT);
                if (got == 0 || (got < 0 && errno != EAGAIN)) one.fd = -1;  // ended: ignored
            }
            std::this_thread::sleep_for(pause);
            ::poll(watched.data(), watched.size(), 50);
        }
        std::this_thread::sleep_until(until);
    };
}

// On each of `connections` sockets one of `lies` in turn, then, if
// `trickling`, a byte a second more, in place once the host has had two
// seconds to take what the sockets hold.
inline Attack sending(std::size_t connections, std::vector<std::string> lies, bool trickling) {
    return [=](const std::string& bus, const Ready& ready, Clock::time_point until) {
        const Sockets sockets = connect(bus, connections, until);
        for (std::size_t i = 0; i < sockets.size(); ++i)
            sockets[i].sendBytes(lies[i % lies.size()]);
        if (trickling) std::this_thread::sleep_for(std::chrono::seconds(2));
        ready();
        for (; trickling && Clock::now() < until;
             std::this_thread::sleep_for(std::chrono::seconds(1)))
            for (const auto& socket : sockets) socket.sendBytes(std::string(1, 0));
        std::this_thread::sleep_until(until);
    };
}
const std::string announces64MiB("\0\0\0\4", 4);

struct Row {
    const char* name;
    Attack attack;
    rlim_t hostDescriptors = 0;  // the host's descriptor limit, when lowered
    int keys = 0;                // in the group "attack", each of whose `next` lists them all
};
inline void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

// The attacks; `fewer` divides their connections, for a slow build. What they
// ask for is in the group "attack": "small", "medium", whose answer is
// 3.6 MiB, and "large", 33.5 M code units near the frame's limit.
inline std::vector<Row> attacks(std::size_t fewer) {
    using std::chrono::milliseconds;
    return {
        {"UnreadAnswersOn40Connections", asking(40, 1, "read", "medium", 0, {})},
        {"UnreadAnswersOn1000Connections", asking(1000 / fewer, 1, "read", "medium", 0, {})},
        {"ASlowReaderOf32LargeAnswers",
         asking(1, 32, "read", "large", 256 << 10, milliseconds(500))},
        {"TwoLargeFramesTrickled",
         sending(2, {announces64MiB + std::string((64 << 20) - (64 << 10), 1)}, true)},
        // Lies about frames: a host that believed their sizes would hold GiBs.
        {"GarbageOnFiftySockets",
         sending(50,
                 {std::string("\x08\0\0\0\x09garbage", 12),  // a frame of unknown kind
                  std::string("\x01\0\0\x05", 4),            // over the limit
                  announces64MiB, announces64MiB + "only a little",
                  announces64MiB + std::string(64 << 10, 'x')},
                 false)},
        {"LargeAnswersReadPromptlyOn16Connections",
         asking(16 / fewer, 1, "read", "large", 1 << 20, {})},
        {"SlowRequestsOn64Connections", asking(64 / fewer, 50, "next", "", 1 << 20, {}), 0, 10'000},
        {"AFloodReadSlowly", asking(1, 3000, "read", "small", 16 << 10, milliseconds(10))},
        {"OneClientTakesEveryConnection", asking(8192, 0, "", "", 0, {})},
        {"OneClientAtADescriptorLimitOf64", asking(8192, 0, "", "", 0, {}), 64}};
}
inline void storeWhatTheyAskFor(const std::filesystem::path& localState, int keys) {
    std::filesystem::create_directories(localState / "attack");
    std::ofstream(localState / "attack" / "small") << std::string(100, 's');
    std::ofstream(localState / "attack" / "medium") << std::string(1'800'000, 'm');
    std::ofstream(localState / "attack" / "large") << std::string(33'500'000, 'l');
    for (int key = 0; key < keys; ++key) std::ofstream(localState / "attack" / std::to_string(key));
}

// The attack in a process of its own for at most `hold`, once it is in place
// (or has not got there in 20 s); the process ends with the object.
inline std::unique_ptr<ChildProcess> startAttacker(const std::string& bus, const Attack& attack,
                                                   std::chrono::seconds hold) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    auto attacker = std::make_unique<ChildProcess>([&] {
        attack(
            bus, [&] { (void)!::write(ready[1], "", 1); }, Clock::now() + hold);
    });
    ::close(ready[1]);
    pollfd readiness{ready[0], POLLIN, 0};
    ::poll(&readiness, 1, 20'000);
    ::close(ready[0]);
    return attacker;
}

}  // namespace Quorvendale::Testing::Attackers
