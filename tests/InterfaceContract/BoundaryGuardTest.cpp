#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "InterfaceContract/BoundaryGuard.h"
#include "InterfaceContract/ErrorReport.h"
#include "InterfaceContract/Exception.h"
#include "InterfaceContract/OutSlot.h"
#include "Support/ArrayOut.h"

namespace Quorvendale::InterfaceContract {

namespace {

TEST(BoundaryGuard, TranslatesEachKindInCatchOrder) {
    struct Case {
        const char* name;
        void (*raise)();
        ResultCode code;
        std::string message;
    };
    const Case cases[] = {
        // Exception derives from std::runtime_error: caught first, its code kept.
        {"Exception", [] { throw Exception(0x8000000Bu, "out of range"); }, 0x8000000Bu,
         "out of range"},
        {"invalid_argument", [] { throw std::invalid_argument("bad group"); }, QV_E_INVALIDARG,
         "bad group"},
        {"bad_alloc", [] { throw std::bad_alloc(); }, QV_E_OUTOFMEMORY, std::bad_alloc().what()},
        {"runtime_error", [] { throw std::runtime_error("Exception:\n\tline: 1"); }, QV_E_FAIL,
         "Exception:\n\tline: 1"},
        {"logic_error", [] { throw std::length_error("vector too long"); }, QV_E_FAIL,
         "vector too long"},
        {"int", [] { throw 42; }, QV_E_FAIL, ""},
    };
    for (const Case& c : cases) {
        threadMessage() = "stale";
        EXPECT_EQ(guard(c.raise), c.code) << c.name;
        EXPECT_EQ(threadMessage(), c.message) << c.name;
    }
    guard(cases[0].raise);
    EXPECT_EQ(guard([] {}), QV_S_OK);
    EXPECT_EQ(threadMessage(), cases[0].message);
}

class Plain final : public InterfacedObject {};

TEST(BoundaryGuard, EachThreadReadsItsOwnMessage) {
    IInterface* object = nullptr;
    handOut(*new Plain, IID_IInterface, &object);

    // Both threads fail before either reads, so a shared slot would show the
    // other thread's text. They meet with a mutex and a condition: the atomic
    // waits behind std::barrier can miss a wake-up in GCC 12's libstdc++
    // where there is no futex, as with mingw-w64.
    std::mutex mutex;
    std::condition_variable changed;
    int failed = 0;
    std::string seen[2];
    auto failThenRead = [&](int index) {
        const std::string text = "failure of thread " + std::to_string(index);
        EXPECT_EQ(guard([&] { throw std::runtime_error(text); }), QV_E_FAIL);
        {
            std::unique_lock lock(mutex);
            ++failed;
            changed.notify_all();
            changed.wait(lock, [&] { return failed == 2; });
        }
        seen[index] = Testing::messageOf(object);
    };
    std::thread a(failThenRead, 0), b(failThenRead, 1);
    a.join();
    b.join();

    EXPECT_EQ(seen[0], "failure of thread 0");
    EXPECT_EQ(seen[1], "failure of thread 1");
    object->table->release(object);
}

TEST(ErrorReport, QualifiedNameDropsReturnTypeParametersAndQualifiers) {
    EXPECT_EQ(qualifiedFunctionName(
                  "std::string Quorvendale::StorageClient::RemoteStorageClient::read(const "
                  "std::string &, const std::string &)"),
              "Quorvendale::StorageClient::RemoteStorageClient::read");
    EXPECT_EQ(qualifiedFunctionName("virtual void A::B::connect() const"), "A::B::connect");
    EXPECT_EQ(qualifiedFunctionName("A::B::B(int)"), "A::B::B");
    EXPECT_EQ(qualifiedFunctionName("std::map<int, int> A::f<std::pair<int, int> >(int)"),
              "A::f<std::pair<int, int> >");
    EXPECT_EQ(qualifiedFunctionName("void A::run()::<lambda()>"), "A::run");
    EXPECT_EQ(qualifiedFunctionName("void A::(anonymous namespace)::f(int)"),
              "A::(anonymous namespace)::f");
    EXPECT_EQ(qualifiedFunctionName("void A::{anonymous}::f(int)"), "A::{anonymous}::f");
}

}  // namespace
}  // namespace Quorvendale::InterfaceContract
