// The storage service as the app-service host runs it, inside this process:
// the built library loaded with dlopen, its StorageService activated through
// DllGetActivationFactory and run as the task of one end of a socketpair,
// while the test talks to the other end as the client does.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>


#include "ServiceIdentity.h"
#include "Platform/Background/BackgroundTaskInstance.h"
#include "Platform/Activation/Module.h"
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
        auto service = factoryOf(ServiceIdentity::serviceClassName)->ActivateInstance();
        EXPECT_EQ(service->GetRuntimeClassName(), hstring(ServiceIdentity::serviceClassName));
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

TEST_F(StorageServiceTest, ACancelledTaskEndsAndStillAnswersItsOpenConnection) {
    EXPECT_EQ(library().canUnloadNow(), S_FALSE);
    task_->Cancel(BackgroundTaskCancellationReason::Terminating);
    EXPECT_TRUE(await(task_->Ended()));
    EXPECT_EQ(ask(ValueSet()), success);
}

TEST(StorageServiceActivation, OnlyTheServiceClassIsActivatedAndLiveObjectsPinTheLibrary) {
    const std::u16string others[] = {std::u16string(ServiceIdentity::serviceClassName) + u"X", u""};
    for (const std::u16string& other : others) {
        factoryOf(hstring(other), CLASS_E_CLASSNOTAVAILABLE);
    }
    EXPECT_EQ(library().getActivationFactory(nullptr, nullptr), E_POINTER);
    ASSERT_EQ(library().canUnloadNow(), S_OK);

    auto factory = factoryOf(ServiceIdentity::serviceClassName);
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
