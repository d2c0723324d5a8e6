// A stand-in storage service for the local client's tests, in a library of
// its own that the real host activates (--library, --entry-point
// Test.ScriptedService) in place of the storage service. It answers each
// request as the request's key says, so that tests can make the replies a
// real store never gives:
//
//   "reject..."      status "failed", response "rejected by the scripted service"
//   "null-response"  status "success", response null
//   "no-response"    status "success", no response at all
//   "no-status"      a response, no status
//   "Success"        status "Success": right but for the letter case
//   "success "       status "success ": right but for a trailing blank
//   anything else    status "success", the key as response
//
// and it writes a line "<connection> <command> <key>" for every request to
// requests.log in its package's LocalState, where the connection is the
// activation's number in this host process, so that tests can count what
// the service received.
#include <atomic>
#include <fstream>
#include <mutex>

#include "Platform/AppService/AppServiceTriggerDetails.h"
#include "Platform/Activation/ApplicationData.h"
#include "Platform/Background/IBackgroundTask.h"
#include "Platform/Activation/Module.h"
#include "Platform/Text/TextConversion.h"
#include "Quorvendale/Export.h"

namespace {

using namespace Quorvendale::Platform;

Module& module();

std::string textOf(const ValueSet& message, const char16_t* key) {
    return message.HasKey(key) ? utf16ToUtf8(unbox_value<hstring>(message.Lookup(key))) : "";
}

void log(int connection, const ValueSet& message) {
    static std::mutex mutex;
    const std::string folder = utf16ToUtf8(ApplicationData::Current().LocalFolder().Path());
    std::lock_guard lock(mutex);
    std::ofstream(folder + "/requests.log", std::ios::app)
        << connection << ' ' << textOf(message, u"command") << ' ' << textOf(message, u"key")
        << '\n';
}

ValueSet replyTo(const std::string& key) {
    ValueSet reply;
    const auto text = [](const std::string& value) {
        return PropertyValue::CreateString(hstring(utf8ToUtf16(value)));
    };
    if (key == "null-response") {
        reply.Insert(u"response", nullptr);
        reply.Insert(u"status", text("success"));
    } else if (key == "no-response") {
        reply.Insert(u"status", text("success"));
    } else if (key == "no-status") {
        reply.Insert(u"response", text("no status"));
    } else if (key.starts_with("reject")) {
        reply.Insert(u"response", text("rejected by the scripted service"));
        reply.Insert(u"status", text("failed"));
    } else if (key == "Success" || key == "success ") {
        reply.Insert(u"response", text("status \"" + key + "\""));
        reply.Insert(u"status", text(key));
    } else {
        reply.Insert(u"response", text(key));
        reply.Insert(u"status", text("success"));
    }
    return reply;
}

class ScriptedService final : public IBackgroundTask {
public:
    hstring GetRuntimeClassName() const override { return u"Test.ScriptedService"; }

    void Run(const com_ptr<IBackgroundTaskInstance>& taskInstance) override {
        static std::atomic<int> activations{0};
        const int connection = ++activations;
        taskInstance->Canceled([deferral = taskInstance->GetDeferral()](auto&, auto) {
            deferral.Complete();
        });
        const com_ptr<ScriptedService> self(this);
        as<AppServiceTriggerDetails>(taskInstance->TriggerDetails())
            ->AppServiceConnection()
            .RequestReceived([self, connection](auto&, const AppServiceRequestReceivedEventArgs& args) {
                const ValueSet message = args.Request().Message();
                log(connection, message);
                args.Request().SendResponseAsync(replyTo(textOf(message, u"key")));
            });
    }

private:
    Module::LiveObject live_{module()};
};

class Factory final : public IActivationFactory {
public:
    hstring GetRuntimeClassName() const override { return u"Test.ScriptedServiceFactory"; }
    com_ptr<IInspectable> ActivateInstance() override { return make<ScriptedService>(); }

private:
    Module::LiveObject live_{module()};
};

Module& module() {
    static Module instance{
        {u"Test.ScriptedService", [] { return com_ptr<IActivationFactory>(make<Factory>()); }}};
    return instance;
}

}  // namespace

QV_EXTERN_C QV_EXPORT HRESULT DllGetActivationFactory(HSTRING classId,
                                                      IActivationFactory** factory) {
    return module().GetActivationFactory(classId, factory);
}

QV_EXTERN_C QV_EXPORT HRESULT DllCanUnloadNow() { return module().Terminate() ? S_OK : S_FALSE; }
