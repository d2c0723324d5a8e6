#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <vector>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/Background/BackgroundTaskInstance.h"
#include "Support/Waiting.h"

namespace Quorvendale::Platform {
namespace {

using Testing::await;
using Testing::eventually;

std::pair<int, int> socketPair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {ends[0], ends[1]};
}

struct Pair {
    AppServiceConnection client{nullptr};
    AppServiceConnection service{nullptr};
};

Pair connectedPair() {
    auto [clientEnd, serviceEnd] = socketPair();
    return {AppServiceConnection::fromSocket(clientEnd),
            AppServiceConnection::fromSocket(serviceEnd)};
}

ValueSet numbered(std::int64_t n) {
    ValueSet message;
    message.Insert(u"n", PropertyValue::CreateInt64(n));
    return message;
}

// Answers each request with n * 2, from another pool job, so that answers
// leave in whatever order the pool runs them.
void answerDoubled(const AppServiceConnection& service) {
    service.RequestReceived([](auto&, const AppServiceRequestReceivedEventArgs& args) {
        const AppServiceDeferral deferral = args.GetDeferral();
        const AppServiceRequest request = args.Request();
        ThreadPool::submit([request, deferral] {
            const auto n = unbox_value<std::int64_t>(request.Message().Lookup(u"n"));
            request.SendResponseAsync(numbered(2 * n)).Completed([deferral](auto&, auto) {
                deferral.Complete();
            });
        });
    });
}

TEST(AppServiceConnection, ManyRequestsInFlightAreAnsweredByTheirOwnIds) {
    const Pair pair = connectedPair();
    answerDoubled(pair.service);
    std::vector<IAsyncOperation<AppServiceResponse>> sent;
    for (int n = 0; n < 200; ++n) sent.push_back(pair.client.SendMessageAsync(numbered(n)));
    for (int n = 0; n < 200; ++n) {
        const AppServiceResponse response = await(sent[n]);
        ASSERT_EQ(response.Status(), AppServiceResponseStatus::Success);
        EXPECT_EQ(unbox_value<std::int64_t>(response.Message().Lookup(u"n")), 2 * n);
    }
    // Both sides may ask: the service side's request reaches the client's handler.
    answerDoubled(pair.client);
    EXPECT_EQ(unbox_value<std::int64_t>(
                  await(pair.service.SendMessageAsync(numbered(4))).Message().Lookup(u"n")),
              8);
}

TEST(AppServiceConnection, ARequestLeftUnansweredFailsInsteadOfHanging) {
    const Pair pair = connectedPair();
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
    const Pair pair = connectedPair();
    answerDoubled(pair.service);
    ValueSet huge;
    huge.Insert(u"data", PropertyValue::CreateString(
                             hstring(std::u16string(AppServiceFrame::maximumBodySize / 2, u'x'))));
    EXPECT_EQ(await(pair.client.SendMessageAsync(huge)).Status(),
              AppServiceResponseStatus::MessageSizeTooLarge);
    EXPECT_EQ(await(pair.client.SendMessageAsync(numbered(3))).Status(),
              AppServiceResponseStatus::Success);
}

// One side of a task: the service connection inside a task instance whose
// Run took a deferral, and whose Canceled completes it.
struct ServedTask {
    explicit ServedTask(const AppServiceConnection& service)
        : instance(BackgroundTaskInstance::forConnection(service)) {
        struct Task final : IBackgroundTask {
            hstring GetRuntimeClassName() const override { return u"Test.Task"; }
            void Run(const com_ptr<IBackgroundTaskInstance>& taskInstance) override {
                taskInstance->Canceled(
                    [deferral = taskInstance->GetDeferral()](auto&, auto) { deferral.Complete(); });
            }
        };
        instance->run(*make<Task>());
    }
    com_ptr<BackgroundTaskInstance> instance;
};

TEST(AppServiceConnection, EndingEitherSideFailsPendingRequestsAndCancelsTheTask) {
    for (const bool serviceEnds : {true, false}) {
        SCOPED_TRACE(serviceEnds ? "service side closes" : "client side goes");
        Pair pair = connectedPair();
        ServedTask task(pair.service);
        EXPECT_EQ(task.instance->Ended().Status(), AsyncStatus::Started);
        std::optional<AppServiceDeferral> held;  // never completed: no answer will come
        std::atomic<bool> requestArrived{false};
        pair.service.RequestReceived([&](auto&, const AppServiceRequestReceivedEventArgs& args) {
            held = args.GetDeferral();
            requestArrived = true;
        });
        std::atomic<int> serviceClosed{0};
        pair.client.ServiceClosed([&](auto&, auto&) { ++serviceClosed; });

        const auto pending = pair.client.SendMessageAsync(ValueSet());
        ASSERT_TRUE(eventually([&] { return requestArrived.load(); }));
        if (serviceEnds) {
            pair.service.Close();
        } else {
            pair.client = nullptr;  // the last copy: the connection ends with it
        }
        EXPECT_EQ(await(pending).Status(), AppServiceResponseStatus::Failure);
        EXPECT_TRUE(await(task.instance->Ended()));
        EXPECT_TRUE(eventually([&] { return serviceClosed == (serviceEnds ? 1 : 0); }));
        if (serviceEnds) {
            EXPECT_EQ(await(pair.client.SendMessageAsync(ValueSet())).Status(),
                      AppServiceResponseStatus::Failure);
        }
    }
}

TEST(AppServiceConnection, AMalformedOrLyingPeerOnlyEndsTheConnection) {
    const std::string lies[] = {
        std::string("\x08\x00\x00\x00\x09garbage", 12),        // unknown kind
        std::string("\x01\x00\x00\x05", 4),                    // over the limit
        std::string("\x00\x00\x00\x04", 4) + "only a little",  // announces 64 MiB, sends less
    };
    for (const std::string& lie : lies) {
        auto [rawEnd, serviceEnd] = socketPair();
        const AppServiceConnection service = AppServiceConnection::fromSocket(serviceEnd);
        std::atomic<int> closed{0};
        service.ServiceClosed([&](auto&, auto&) { ++closed; });
        ServedTask task(service);
        ASSERT_EQ(::write(rawEnd, lie.data(), lie.size()), static_cast<ssize_t>(lie.size()));
        if (lie.size() > 4 && lie[3] == '\x04') ::shutdown(rawEnd, SHUT_WR);
        EXPECT_TRUE(await(task.instance->Ended()));
        EXPECT_TRUE(eventually([&] { return closed == 1; }));
        char byte;
        EXPECT_EQ(::read(rawEnd, &byte, 1), 0);  // the service side hung up
        ::close(rawEnd);
    }
}

}  // namespace
}  // namespace Quorvendale::Platform
