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

const hstring serviceClass(ServiceIdentity::serviceClassName);

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
    EXPECT_EQ(factory == nullptr, expected != S_OK);
    return com_ptr<IActivationFactory>::attach(factory);
}

TEST(StorageService, ActivationAndLiveObjectsPinTheLibrary) {
    for (const hstring& other : {hstring(std::u16string(serviceClass) + u"X"), hstring()}) {
        factoryOf(other, CLASS_E_CLASSNOTAVAILABLE);
    }
    EXPECT_EQ(library().getActivationFactory(nullptr, nullptr), E_POINTER);
    ASSERT_EQ(library().canUnloadNow(), S_OK);
    auto factory = factoryOf(serviceClass);
    EXPECT_EQ(factory->GetRuntimeClassName(),
              hstring(u"Quorvendale.Storage.__StorageServiceActivationFactory"));
    EXPECT_EQ(library().canUnloadNow(), S_FALSE);
    auto service = factory->ActivateInstance();
    EXPECT_EQ(service->GetRuntimeClassName(), serviceClass);
    factory = nullptr;
    EXPECT_EQ(library().canUnloadNow(), S_FALSE);
    service = nullptr;
    EXPECT_EQ(library().canUnloadNow(), S_OK);
}

// Once the connection ends, every object of the library goes.
TEST(StorageService, ACancelledTaskEndsAndStillAnswersItsOpenConnection) {
    const Testing::PackageFolder package;
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    AppServiceConnection client = AppServiceConnection::fromSocket(ends[0]);
    auto task = BackgroundTaskInstance::forConnection(AppServiceConnection::fromSocket(ends[1]));
    task->run(*as<IBackgroundTask>(factoryOf(serviceClass)->ActivateInstance()));
    task->Cancel(BackgroundTaskCancellationReason::Terminating);
    EXPECT_TRUE(await(task->Ended()));
    EXPECT_EQ(Testing::replyOf(await(client.SendMessageAsync(ValueSet()))), Testing::success);
    EXPECT_EQ(library().canUnloadNow(), S_FALSE);
    client = nullptr;
    task = nullptr;
    EXPECT_TRUE(Testing::eventually([] { return library().canUnloadNow() == S_OK; }));
}

}  // namespace
}  // namespace Quorvendale::Storage
