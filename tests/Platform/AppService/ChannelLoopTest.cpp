// The loop, its scheduler and its memory budget, in one process over
// socketpairs: no bus, no host.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <semaphore>
#include <thread>

#include "Platform/AppService/AppServiceChannel.h"
#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/AppService/IncomingRequest.h"
#include "Support/Waiting.h"

namespace Quorvendale::Platform::Details {
namespace {

using Testing::await;
using Testing::eventually;
constexpr std::size_t KiB = 1024;

ValueSet carrying(std::size_t bytes) {
    ValueSet message;
    message.Insert(u"data", PropertyValue::CreateString(hstring(std::u16string(bytes / 2, u'x'))));
    return message;
}

// A loop of the test's own settings, stopped at the end whatever happened.
struct Loop {
    explicit Loop(ChannelLoop::Settings settings = {}) : loop(ChannelLoop::start(settings)) {}
    ~Loop() { loop->stop(); }
    // The service end's client is `client`; the other end is returned raw
    // (a socket) or as a connection of a client of its own.
    AppServiceConnection serve(ClientId client, int& peer) const {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        peer = ends[1];
        return AppServiceConnection::fromSocket(ends[0], client, loop);
    }
    std::pair<AppServiceConnection, AppServiceConnection> pair(ClientId client) const {
        int peer = -1;
        AppServiceConnection service = serve(client, peer);
        return {service, AppServiceConnection::fromSocket(peer, 0, loop)};
    }
    std::shared_ptr<ChannelLoop> loop;
};

TEST(MemoryBudget, ASharePoolAndFloorEachBoundWhatIsTakenAndARefusalIsReported) {
    MemoryBudget budget({.clientShare = 100, .pool = 140, .clientFloor = 10, .floorPool = 30});
    EXPECT_TRUE(budget.tryTake(1, 100));
    EXPECT_FALSE(budget.tryTake(1, 1));         // past its share
    EXPECT_FALSE(budget.mayStart(1));
    EXPECT_TRUE(budget.tryTake(2, 60));         // the pool: 90 + 50 of 140
    EXPECT_FALSE(budget.tryTake(3, 11));        // the pool is full beyond 3's floor...
    EXPECT_TRUE(budget.tryTake(3, 10));         // ...but its floor is not
    EXPECT_FALSE(budget.tryTake(4, 1));         // the floors' own pool is full
    EXPECT_TRUE(budget.giveBack(1, 100));       // refusals since the last give-back
    EXPECT_FALSE(budget.giveBack(2, 60));
    budget.add(2, 500);                         // answers are counted, never refused
    EXPECT_EQ(budget.held(), 510u);
    budget.giveBack(2, 500);
    budget.giveBack(3, 10);
    EXPECT_EQ(budget.held(), 0u);
}

// One client with many requests on many connections gets one client's
// turns; a client at its limit of running requests waits for one to end.
TEST(RequestScheduler, TurnsGoByClientAndTheLimitsAreCountedExactly) {
    const Loop loop({.runningPerClient = 2});
    RequestScheduler& scheduler = loop.loop->scheduler();
    std::vector<std::shared_ptr<AppServiceChannel>> channels;
    for (const ClientId client : {1, 1, 2}) {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        ::close(ends[1]);
        channels.push_back(std::make_shared<AppServiceChannel>(
            loop.loop, Posix::FileDescriptor(ends[0]), std::weak_ptr<ConnectionObject>(), client));
    }
    std::uint64_t id = 0;
    const auto add = [&](std::size_t channel) {
        return scheduler.add(std::make_shared<IncomingRequest>(channels[channel], ++id, ValueSet(), 0));
    };
    for (std::size_t i = 0; i < RequestScheduler::maximumInFlight; ++i) {
        EXPECT_TRUE(scheduler.mayReceive(channels[0]->id()));
        add(0);
    }
    EXPECT_FALSE(scheduler.mayReceive(channels[0]->id()));
    EXPECT_EQ(add(1), 0u);  // client 1 has its place in the line already
    EXPECT_EQ(add(2), 1u);
    std::vector<std::shared_ptr<IncomingRequest>> order;
    std::size_t jobs = 0;
    for (int i = 0; i < 3; ++i) order.push_back(scheduler.next(jobs));
    ASSERT_TRUE(order[2]);
    EXPECT_EQ(order[0]->channel, channels[0]);
    EXPECT_EQ(order[1]->channel, channels[2]);  // the other client's turn comes second
    EXPECT_EQ(order[2]->channel, channels[1]);  // then client 1's other connection
    EXPECT_FALSE(scheduler.next(jobs));         // client 1 runs two: its limit
    EXPECT_EQ(scheduler.finished(*order[0]), 1u);
    EXPECT_EQ(scheduler.next(jobs)->channel, channels[0]);
    EXPECT_TRUE(scheduler.answered(channels[0]->id()));  // it was at the in-flight limit
    EXPECT_FALSE(scheduler.answered(channels[0]->id()));
    scheduler.drop(channels[0]->id());
    scheduler.drop(channels[1]->id());
}

// Whatever ends a connection, everything held for its client comes back:
// a frame half received, answers the peer never read, a request in service;
// and a request still waiting for its turn is dropped unheard.
TEST(ChannelLoop, EveryKindOfEndGivesAllMemoryBackAndDropsRequestsNotStarted) {
    const Loop loop({.runningPerClient = 1});
    MemoryBudget& memory = loop.loop->memory();
    int halfFramePeer = -1;
    const AppServiceConnection halfFrame = loop.serve(7, halfFramePeer);
    const std::uint32_t length = 1 << 20;
    ASSERT_EQ(::write(halfFramePeer, &length, 4), 4);
    ASSERT_EQ(::write(halfFramePeer, std::string(100 * KiB, 'x').data(), 100 * KiB), ssize_t(100 * KiB));
    ASSERT_TRUE(eventually([&] { return memory.heldFor(7) >= 100 * KiB; }));
    ::close(halfFramePeer);

    int peer = -1;  // reads nothing
    const AppServiceConnection service = loop.serve(8, peer);
    std::binary_semaphore release(0);
    std::atomic<int> requests{0};
    std::atomic<bool> ended{false};
    service.ServiceClosed([&](auto&, auto&) { ended = true; });
    service.RequestReceived([&](auto&, const AppServiceRequestReceivedEventArgs& args) {
        if (++requests > 2) return;
        if (args.Request().Message().HasKey(u"data")) {
            args.Request().SendResponseAsync(carrying(4 << 20));
        } else {
            release.acquire();  // a request in service when the connection goes
        }
    });
    for (std::uint64_t id = 1; id <= 3; ++id) {
        const EncodedFrame frame =
            *AppServiceFrame{AppServiceFrame::Kind::Request, id, id == 1 ? carrying(KiB) : ValueSet()}
                 .encode();
        for (std::size_t at = 0; at < frame.size();) {
            const std::string_view piece = frame.piece(at);
            ASSERT_EQ(::write(peer, piece.data(), piece.size()), ssize_t(piece.size()));
            at += piece.size();
        }
    }
    ASSERT_TRUE(eventually([&] { return memory.heldFor(8) >= 3 << 20 && requests == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the third arrives, and waits
    ::close(peer);
    ASSERT_TRUE(eventually([&] { return ended.load(); }));
    release.release();
    EXPECT_TRUE(eventually([&] { return memory.held() == 0; })) << memory.held();
    EXPECT_EQ(requests, 2);
}

// A client past its share waits, and is woken when its memory comes back;
// another client goes on meanwhile.
TEST(ChannelLoop, AClientPastItsShareWaitsAndIsWokenWhileOthersGoOn) {
    const Loop loop({.memory = {.clientShare = 300 * KiB}});
    auto [first, firstClient] = loop.pair(1);
    auto [second, secondClient] = loop.pair(1);
    auto [other, otherClient] = loop.pair(2);
    std::atomic<int> served{0};
    std::optional<AppServiceDeferral> held;
    for (const AppServiceConnection& service : {first, second, other}) {
        service.RequestReceived([&](auto&, const AppServiceRequestReceivedEventArgs& args) {
            if (++served == 1) held = args.GetDeferral();  // keeps the frame's memory taken
            args.Request().SendResponseAsync(ValueSet());
        });
    }
    firstClient.SendMessageAsync(carrying(200 * KiB));
    ASSERT_TRUE(eventually([&] { return served == 1; }));
    const auto waiting = secondClient.SendMessageAsync(carrying(200 * KiB));
    EXPECT_EQ(await(otherClient.SendMessageAsync(carrying(200 * KiB))).Status(),
              AppServiceResponseStatus::Success);
    EXPECT_EQ(waiting.Status(), AsyncStatus::Started);
    held->Complete();
    held.reset();
    EXPECT_EQ(await(waiting).Status(), AppServiceResponseStatus::Success);
}

// A peer that trickles a frame, and one that reads nothing of a large
// answer, are cut off once the frame passes its deadline (a grace and its
// size at the floor rate), not before.
TEST(ChannelLoop, APeerSlowerThanTheFloorRateEitherWayIsCutOffAtItsFramesDeadline) {
    const Loop loop;
    int trickler = -1;
    int nonReader = -1;
    const AppServiceConnection trickled = loop.serve(1, trickler);
    const AppServiceConnection unread = loop.serve(2, nonReader);
    std::atomic<int> ended{0};
    for (const auto& connection : {trickled, unread}) {
        connection.ServiceClosed([&](auto&, auto&) { ++ended; });
    }
    const std::uint32_t length = 64 * KiB;
    ASSERT_EQ(::write(trickler, &length, 4), 4);
    ASSERT_EQ(::write(trickler, "x", 1), 1);
    unread.SendMessageAsync(carrying(1 << 20));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually([&] { return ended == 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, frameDeadline(1 << 20));
    ::close(trickler);
    ::close(nonReader);
}

// A Completed handler that blocks holds neither the loop nor another
// connection; channels dropped on other threads while the loop runs end
// cleanly.
TEST(ChannelLoop, ABlockedCompletionHandlerAndChannelsDroppedElsewhereStallNothing) {
    const Loop loop;
    auto [service, client] = loop.pair(1);
    // The first answer waits until its handler is registered, so that the
    // handler runs where answers are delivered, not at once on this thread.
    // Shared with the handlers, which may still be waking when the test ends.
    const auto registered = std::make_shared<std::binary_semaphore>(0);
    const auto unblock = std::make_shared<std::binary_semaphore>(0);
    service.RequestReceived([registered](auto&, const AppServiceRequestReceivedEventArgs& args) {
        if (args.Request().Message().HasKey(u"data")) registered->acquire();
        args.Request().SendResponseAsync(ValueSet());
    });
    client.SendMessageAsync(carrying(2)).Completed([unblock](auto&, auto) { unblock->acquire(); });
    registered->release();
    std::vector<std::thread> droppers;
    for (int thread = 0; thread < 4; ++thread) {
        droppers.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                auto [s, c] = loop.pair(2);
                c.SendMessageAsync(ValueSet());
            }
        });
    }
    for (auto& dropper : droppers) dropper.join();
    int answered = 0;  // more than the in-flight limit, one after another
    try {
        while (answered < 40 && await(client.SendMessageAsync(ValueSet())).Status() ==
                                    AppServiceResponseStatus::Success) {
            ++answered;
        }
    } catch (const std::runtime_error&) {
    }
    unblock->release();
    EXPECT_EQ(answered, 40);
}

}  // namespace
}  // namespace Quorvendale::Platform::Details
