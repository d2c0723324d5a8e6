#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <thread>

#include "Platform/Foundation/Apartment.h"
#include "Platform/Foundation/AsyncCompletion.h"
#include "Platform/Foundation/ValueSet.h"
#include "Platform/Foundation/event.h"
#include "Posix/WakeUp.h"
#include "Quorvendale/InterfaceContract.h"
#include "Support/Waiting.h"

namespace Quorvendale::Platform {
namespace {

// The boundary's result codes are the platform's HRESULTs, bit for bit.
static_assert(QV_S_OK == static_cast<InterfaceContract::ResultCode>(S_OK));
static_assert(QV_E_NOINTERFACE == static_cast<InterfaceContract::ResultCode>(E_NOINTERFACE));
static_assert(QV_E_POINTER == static_cast<InterfaceContract::ResultCode>(E_POINTER));
static_assert(QV_E_FAIL == static_cast<InterfaceContract::ResultCode>(E_FAIL));
static_assert(QV_E_INVALIDARG == static_cast<InterfaceContract::ResultCode>(E_INVALIDARG));
static_assert(QV_E_OUTOFMEMORY == static_cast<InterfaceContract::ResultCode>(E_OUTOFMEMORY));

using Testing::await;

template <class Call>
HResultError raisedBy(Call call) {
    try {
        call();
    } catch (const HResultError& error) {
        return error;
    }
    ADD_FAILURE() << "no HResultError raised";
    return HResultError(S_OK);
}

TEST(Apartment, NestsPerThreadAndRefusesTheOtherModel) {
    std::thread([] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);
        // Another thread has a record of its own.
        std::thread([] {
            EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
            CoUninitialize();
        }).join();
        CoUninitialize();
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
        CoUninitialize();
        CoUninitialize();
        // Fully uninitialised: either model may be joined again.
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
        CoUninitialize();
    }).join();
}

TEST(ValueSet, MissingKeysAndWrongTypesRaiseTheRuntimeErrors) {
    ValueSet values;
    values.Insert(u"count", PropertyValue::CreateInt64(-7));
    values.Insert(u"none", nullptr);

    const HResultError missing = raisedBy([&] { values.Lookup(u"absent"); });
    EXPECT_EQ(missing.code(), E_BOUNDS);
    EXPECT_EQ(missing.message(),
              hstring(u"The operation attempted to access data outside the valid range"));
    const HResultError notString = raisedBy([&] { unbox_value<hstring>(values.Lookup(u"count")); });
    EXPECT_EQ(notString.code(), E_NOINTERFACE);
    EXPECT_EQ(notString.message(), hstring(u"No such interface supported"));
    EXPECT_EQ(raisedBy([&] { unbox_value<hstring>(values.Lookup(u"none")); }).code(),
              E_NOINTERFACE);
    EXPECT_EQ(unbox_value<std::int64_t>(values.Lookup(u"count")), -7);
}

// Completed runs once, whether set before or after the end; only the first
// ending counts; failure and cancellation reach GetResults.
TEST(AsyncOperation, EndsOnceAndTellsHow) {
    std::atomic<int> calls{0};
    AsyncCompletion<int> early;
    early.operation().Completed([&](auto& operation, AsyncStatus status) {
        EXPECT_EQ(status, AsyncStatus::Completed);
        EXPECT_EQ(operation.GetResults(), 1);
        ++calls;
    });
    early.Complete(1);
    EXPECT_FALSE(early.Complete(2));
    const IAsyncOperation<int> late = runAsync<int>([] { return 42; });
    ASSERT_TRUE(Testing::eventually([&] { return late.Status() != AsyncStatus::Started; }));
    late.Completed([&](auto&, AsyncStatus status) { calls += status == AsyncStatus::Completed; });
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(late.GetResults(), 42);
    EXPECT_EQ(raisedBy([&] { late.Completed([](auto&, auto) {}); }).code(), E_ILLEGAL_METHOD_CALL);

    const auto failing = runAsync<int>([]() -> int { throw HResultError(E_BOUNDS); });
    EXPECT_EQ(raisedBy([&] { await(failing); }).code(), E_BOUNDS);
    EXPECT_EQ(failing.Status(), AsyncStatus::Error);
    AsyncCompletion<int> pending;
    EXPECT_EQ(raisedBy([&] { pending.operation().GetResults(); }).code(), E_ILLEGAL_METHOD_CALL);
    pending.operation().Cancel();
    EXPECT_FALSE(pending.Complete(3));
    EXPECT_EQ(pending.operation().Status(), AsyncStatus::Canceled);
    EXPECT_EQ(raisedBy([&] { pending.operation().GetResults(); }).code(), ERROR_CANCELLED);

    // wait() sleeps until another thread ends it, and leaves Completed free.
    AsyncCompletion<int> waited;
    std::thread completer([waited] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        waited.Complete(7);
    });
    waited.operation().wait();
    completer.join();
    EXPECT_EQ(waited.operation().GetResults(), 7);
    waited.operation().Completed([&](auto&, AsyncStatus) { calls += 10; });
    EXPECT_EQ(calls, 12);
}

// Signals before a drain are one wake-up.
TEST(WakeUp, ReadableFromTheFirstSignalUntilTheDrain) {
    Posix::WakeUp wakeUp;
    pollfd watched{wakeUp.descriptor(), POLLIN, 0};
    wakeUp.signal();
    wakeUp.signal();
    EXPECT_EQ(::poll(&watched, 1, 0), 1);
    wakeUp.drain();
    EXPECT_EQ(::poll(&watched, 1, 0), 0);
}

TEST(Event, TokensRemoveTheirOwnHandlerAndAThrowingHandlerStopsNoOther) {
    event<int> changed;
    int sum = 0;
    const event_token first = changed.add([&](int value) { sum += value; });
    changed.add([](int) { throw std::runtime_error("faulty handler"); });
    const event_token third = changed.add([&](int value) { sum += 100 * value; });
    EXPECT_NE(first, third);
    changed(1);
    EXPECT_EQ(sum, 101);
    changed.remove(first);
    changed(2);
    EXPECT_EQ(sum, 301);
}

}  // namespace
}  // namespace Quorvendale::Platform
