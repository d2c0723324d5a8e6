// The storage service as the app-service host runs it, inside this process:
// the built library loaded with dlopen, its StorageService activated through
// DllGetActivationFactory and run as the task of one end of a socketpair,
// while the test talks to the other end as the client does.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <filesystem>
#include <vector>

#include "Platform/BackgroundTaskInstance.h"
#include "Platform/Module.h"
#include "Platform/TextConversion.h"
#include "Support/PackageFolder.h"
#include "Support/StorageMessages.h"
#include "Support/Waiting.h"

namespace Quorvendale::Storage {
namespace {

using namespace Platform;
using Testing::await;
using Testing::eventually;
using Testing::Reply;
using Testing::replyOf;
using Testing::request;
using Testing::success;
using Testing::unknownException;

struct Exports {
    HRESULT (*getActivationFactory)(HSTRING, IActivationFactory**);
    HRESULT (*canUnloadNow)();
};

// Loaded once and never unloaded: pool threads may still be leaving its code.
const Exports& library() {
    static const Exports exports = [] {
        void* handle = ::dlopen(QV_STORAGE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) throw std::runtime_error(::dlerror());
        return Exports{reinterpret_cast<HRESULT (*)(HSTRING, IActivationFactory**)>(
                           ::dlsym(handle, "DllGetActivationFactory")),
                       reinterpret_cast<HRESULT (*)()>(::dlsym(handle, "DllCanUnloadNow"))};
    }();
    return exports;
}

com_ptr<IActivationFactory> factoryOf(const hstring& classId, HRESULT expected = S_OK) {
    IActivationFactory* factory = reinterpret_cast<IActivationFactory*>(0x1);
    EXPECT_EQ(library().getActivationFactory(get_abi(classId), &factory), expected);
    if (expected != S_OK) {
        EXPECT_EQ(factory, nullptr);
    }
    return com_ptr<IActivationFactory>::attach(factory);
}

class StorageServiceTest : public testing::Test {
protected:
    StorageServiceTest() {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        client_ = AppServiceConnection::fromSocket(ends[0]);
        task_ = BackgroundTaskInstance::forConnection(AppServiceConnection::fromSocket(ends[1]));
        auto service = factoryOf(u"Quorvendale.Storage.StorageService")->ActivateInstance();
        EXPECT_EQ(service->GetRuntimeClassName(), hstring(u"Quorvendale.Storage.StorageService"));
        task_->run(*as<IBackgroundTask>(service));
    }

    ~StorageServiceTest() override {
        client_ = nullptr;
        task_ = nullptr;
        // Every service and factory goes once its connection has ended.
        EXPECT_TRUE(eventually([] { return library().canUnloadNow() == S_OK; }));
    }

    Reply ask(const ValueSet& message) { return replyOf(await(client_.SendMessageAsync(message))); }

    Testing::PackageFolder package_;
    AppServiceConnection client_{nullptr};
    com_ptr<BackgroundTaskInstance> task_;
};

TEST_F(StorageServiceTest, AnswersEveryMalformedRequestWithTheRightFailure) {
    ValueSet numericGroup = request({{u"command", "read"}, {u"key", "k"}});
    numericGroup.Insert(u"group", PropertyValue::CreateInt64(1));

    EXPECT_EQ(ask(ValueSet()), success);  // the client's reachability probe
    EXPECT_EQ(ask(request({{u"command", "READ"}, {u"group", "g"}, {u"key", "k"}})),
              Reply("failed", "Unknown command"));
    EXPECT_EQ(ask(request({{u"command", "read"}, {u"group", "g"}})), unknownException);
    EXPECT_EQ(ask(request({{u"command", "frobnicate"}, {u"key", "k"}})), unknownException);
    EXPECT_EQ(ask(numericGroup), unknownException);
    EXPECT_EQ(
        ask(request({{u"command", "read"}, {u"group", "g"}, {u"key", "missing"}})),
        Reply("failed", "Read file error: file " +
                            (package_.localState() / "g" / "missing").string() + " is not exist"));

    // "data" is looked up before the store is touched: nothing appears on disk.
    EXPECT_EQ(ask(request({{u"command", "write"}, {u"group", "fresh"}, {u"key", "k"}})),
              unknownException);
    EXPECT_FALSE(std::filesystem::exists(package_.localState() / "fresh"));

    // A store that cannot find its folder raises a platform error.
    Testing::ScopedEnvironment noPackage("QUORVENDALE_PACKAGE_FAMILY_NAME", nullptr);
    EXPECT_EQ(ask(request({{u"command", "read"}, {u"group", "g"}, {u"key", "k"}})),
              unknownException);
}

TEST_F(StorageServiceTest, WritesReadsAndRemovesTextAsUtf8) {
    const char* value = "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80 \xE6\x97\xA5\xE6\x9C\xAC";
    EXPECT_EQ(
        ask(request({{u"command", "write"}, {u"group", "g"}, {u"key", "k"}, {u"data", value}})),
        success);
    EXPECT_EQ(Testing::contentOf(package_.localState() / "g" / "k"), value);
    EXPECT_EQ(ask(request({{u"command", "read"}, {u"group", "g"}, {u"key", "k"}})),
              Reply("success", value));
    EXPECT_EQ(ask(request({{u"command", "remove"}, {u"group", "g"}, {u"key", "k"}})), success);
    EXPECT_FALSE(std::filesystem::exists(package_.localState() / "g" / "k"));
}

TEST_F(StorageServiceTest, NextWalksTheGroupInListingOrder) {
    for (const char* key : {"a", "b"}) {
        ask(request({{u"command", "write"}, {u"group", "g"}, {u"key", key}, {u"data", "v"}}));
    }
    std::vector<std::string> listed;
    for (const auto& entry : std::filesystem::directory_iterator(package_.localState() / "g")) {
        listed.push_back(entry.path().filename().string());
    }
    ASSERT_EQ(listed.size(), 2u);
    const auto next = [&](const char* key) {
        return ask(request({{u"command", "next"}, {u"group", "g"}, {u"key", key}}));
    };
    EXPECT_EQ(next(""), Reply("success", listed[0]));
    EXPECT_EQ(next(listed[0].c_str()), Reply("success", listed[1]));
    EXPECT_EQ(next(listed[1].c_str()), success);
    EXPECT_EQ(next("c"), Reply("failed", "Invalid key"));
}

TEST_F(StorageServiceTest, ConcurrentRequestsOnOneConnectionGetTheirOwnAnswers) {
    constexpr int count = 64;
    std::vector<IAsyncOperation<AppServiceResponse>> writes;
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        writes.push_back(client_.SendMessageAsync(request(
            {{u"command", "write"}, {u"group", "g"}, {u"key", n.c_str()}, {u"data", n.c_str()}})));
    }
    for (auto& write : writes) EXPECT_EQ(replyOf(await(write)), success);
    std::vector<IAsyncOperation<AppServiceResponse>> reads;
    for (int i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        reads.push_back(client_.SendMessageAsync(
            request({{u"command", "read"}, {u"group", "g"}, {u"key", n.c_str()}})));
    }
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(replyOf(await(reads[i])), Reply("success", std::to_string(i)));
    }
}

TEST_F(StorageServiceTest, ACancelledTaskEndsAndStillAnswersItsOpenConnection) {
    EXPECT_EQ(library().canUnloadNow(), S_FALSE);
    task_->Cancel(BackgroundTaskCancellationReason::Terminating);
    EXPECT_TRUE(await(task_->Ended()));
    EXPECT_EQ(ask(ValueSet()), success);
}

TEST_F(StorageServiceTest, ClosingEitherEndEndsTheTask) {
    std::atomic<int> closed{0};
    client_.ServiceClosed([&](auto&, auto&) { ++closed; });
    as<AppServiceTriggerDetails>(task_->TriggerDetails())->AppServiceConnection().Close();
    EXPECT_TRUE(await(task_->Ended()));
    EXPECT_TRUE(eventually([&] { return closed == 1; }));
    EXPECT_EQ(await(client_.SendMessageAsync(ValueSet())).Status(),
              AppServiceResponseStatus::Failure);
}

TEST(StorageServiceActivation, OnlyTheServiceClassIsActivatedAndLiveObjectsPinTheLibrary) {
    for (const char16_t* other : {u"Quorvendale.Storage.StorageServiceX", u""}) {
        factoryOf(other, CLASS_E_CLASSNOTAVAILABLE);
    }
    EXPECT_EQ(library().getActivationFactory(nullptr, nullptr), E_POINTER);
    ASSERT_EQ(library().canUnloadNow(), S_OK);

    auto factory = factoryOf(u"Quorvendale.Storage.StorageService");
    EXPECT_EQ(factory->GetRuntimeClassName(),
              hstring(u"Quorvendale.Storage.__StorageServiceActivationFactory"));
    EXPECT_EQ(library().canUnloadNow(), S_FALSE);
    auto service = factory->ActivateInstance();
    factory = nullptr;
    EXPECT_EQ(library().canUnloadNow(), S_FALSE);
    service = nullptr;
    EXPECT_EQ(library().canUnloadNow(), S_OK);
}

}  // namespace
}  // namespace Quorvendale::Storage
