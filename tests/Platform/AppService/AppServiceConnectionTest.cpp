#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>

#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/AppService/AppServiceFrame.h"
#include "Platform/Foundation/Log.h"
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

// A peer that takes nothing of a large message is cut off, here as in the
// host; but an application's standard error is its own: the runtime says
// why only once the process (the host) has switched its log on.
TEST(AppServiceConnection, CuttingOffAPeerThatStoppedReadingIsSilentUntilTheLogIsOn) {
    ValueSet large;
    large.Insert(u"data", PropertyValue::CreateString(hstring(std::u16string(1 << 19, u'x'))));
    for (const bool logging : {false, true}) {
        if (logging) enableRuntimeLog();
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const AppServiceConnection client = AppServiceConnection::fromSocket(ends[0]);
        testing::internal::CaptureStderr();
        const auto status = await(client.SendMessageAsync(large)).Status();
        const std::string printed = testing::internal::GetCapturedStderr();
        ::close(ends[1]);
        EXPECT_EQ(status, AppServiceResponseStatus::Failure);
        EXPECT_EQ(printed.find("stopped reading") != std::string::npos, logging) << printed;
    }
}

}  // namespace
}  // namespace Quorvendale::Platform
