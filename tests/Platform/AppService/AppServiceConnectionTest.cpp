#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/Foundation/ThreadPool.h"
#include "Support/Waiting.h"

namespace Quorvendale::Platform {
namespace {

using Testing::await;
using Testing::eventually;

// Both ends of a socketpair. The ends of a connection, its failures and
// malformed peers are tested across processes, against the host.
struct Pair {
    Pair() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        client = AppServiceConnection::fromSocket(ends[0]);
        service = AppServiceConnection::fromSocket(ends[1]);
    }
    AppServiceConnection client{nullptr};
    AppServiceConnection service{nullptr};
};

ValueSet numbered(std::int64_t n) {
    ValueSet message;
    message.Insert(u"n", PropertyValue::CreateInt64(n));
    return message;
}

TEST(AppServiceConnection, ARequestLeftUnansweredFailsInsteadOfHanging) {
    const Pair pair;
    std::atomic<int> requests{0};
    std::atomic<int> secondAnswer{-1};
    pair.service.RequestReceived([&](auto&, const AppServiceRequestReceivedEventArgs& args) {
        switch (++requests) {
            case 1:  // returns without answering or deferring
                break;
            case 2:  // defers, then drops the deferral without completing or answering
                ThreadPool::submit([deferral = args.GetDeferral()] {});
                break;
            default:  // answers twice: only the first counts
                args.Request().SendResponseAsync(numbered(1));
                secondAnswer =
                    static_cast<int>(await(args.Request().SendResponseAsync(numbered(2))));
        }
    });
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(await(pair.client.SendMessageAsync(ValueSet())).Status(),
                  AppServiceResponseStatus::Failure);
    }
    const AppServiceResponse answered = await(pair.client.SendMessageAsync(ValueSet()));
    EXPECT_EQ(unbox_value<std::int64_t>(answered.Message().Lookup(u"n")), 1);
    EXPECT_TRUE(eventually([&] { return secondAnswer != -1; }));
    EXPECT_EQ(secondAnswer, static_cast<int>(AppServiceResponseStatus::Failure));
}

TEST(AppServiceConnection, AMessageOverTheLimitIsRefusedAndTheConnectionGoesOn) {
    const Pair pair;
    pair.service.RequestReceived([](auto&, const AppServiceRequestReceivedEventArgs& args) {
        args.Request().SendResponseAsync(ValueSet());
    });
    ValueSet huge;
    huge.Insert(u"data", PropertyValue::CreateString(
                             hstring(std::u16string(AppServiceFrame::maximumBodySize / 2, u'x'))));
    EXPECT_EQ(await(pair.client.SendMessageAsync(huge)).Status(),
              AppServiceResponseStatus::MessageSizeTooLarge);
    EXPECT_EQ(await(pair.client.SendMessageAsync(numbered(3))).Status(),
              AppServiceResponseStatus::Success);
}

// A thread that waits for its answer reads the socket itself: it must hand
// on whatever else arrives (other threads' answers, the peer's requests),
// and let go once its operation has ended otherwise.
TEST(AppServiceConnection, WaitingThreadsReadForEachOtherAndForThePeer) {
    constexpr int waiters = 8;
    std::mutex heldMutex;
    std::vector<AppServiceDeferral> held;
    const Pair pair;
    pair.service.RequestReceived([&](auto&, const AppServiceRequestReceivedEventArgs& args) {
        const std::int64_t n = unbox_value<std::int64_t>(args.Request().Message().Lookup(u"n"));
        const std::lock_guard lock(heldMutex);
        if (n < 0) {
            held.push_back(args.GetDeferral());  // never answered
            return;
        }
        // Answered last to first, so that most arrive while another waits.
        ThreadPool::submit([request = args.Request(), deferral = args.GetDeferral(), n] {
            std::this_thread::sleep_for(std::chrono::milliseconds(2 * (waiters - n)));
            request.SendResponseAsync(numbered(n));
            deferral.Complete();
        });
    });
    std::atomic<int> peerRequests{0};
    pair.client.RequestReceived([&](auto&, const AppServiceRequestReceivedEventArgs& args) {
        ++peerRequests;
        args.Request().SendResponseAsync(ValueSet());
    });
    std::atomic<int> rightAnswers{0};
    std::vector<std::thread> threads;
    for (int k = 0; k < waiters; ++k) {
        threads.emplace_back([&, k] {
            const auto operation = pair.client.SendMessageAsync(numbered(k));
            operation.wait();
            const ValueSet answer = operation.GetResults().Message();
            if (answer.HasKey(u"n") && unbox_value<std::int64_t>(answer.Lookup(u"n")) == k) {
                ++rightAnswers;
            }
        });
    }
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(await(pair.service.SendMessageAsync(ValueSet())).Status(),
                  AppServiceResponseStatus::Success);
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(rightAnswers, waiters);
    EXPECT_EQ(peerRequests, 4);

    const auto unanswered = pair.client.SendMessageAsync(numbered(-1));
    std::thread canceller([unanswered] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        unanswered.Cancel();
    });
    const auto start = std::chrono::steady_clock::now();
    unanswered.wait();
    canceller.join();
    EXPECT_EQ(unanswered.Status(), AsyncStatus::Canceled);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(await(pair.client.SendMessageAsync(numbered(1))).Status(),
              AppServiceResponseStatus::Success);
}

}  // namespace
}  // namespace Quorvendale::Platform
