// A stand-in storage service that the real host activates in place of the
// real one (--entry-point Test.ScriptedService): it answers each key as
// replyTo's table says, with replies no real store gives (the key
// "end-the-host" ends its process instead), and logs
// "<connection> <command> <key>" to requests.log in its LocalState.
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <optional>
#include <vector>

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

// The entries of each reply, in order; a null text is a null value.
ValueSet replyTo(const std::string& key) {
    using Entries = std::vector<std::pair<const char16_t*, std::optional<std::string>>>;
    const std::string quoted = "status \"" + key + "\"";
    const Entries entries =
        key == "null-response" ? Entries{{u"response", std::nullopt}, {u"status", "success"}}
        : key == "no-response" ? Entries{{u"status", "success"}}
        : key == "no-status"   ? Entries{{u"response", "no status"}}
        : key.starts_with("reject")
            ? Entries{{u"response", "rejected by the scripted service"}, {u"status", "failed"}}
        // Right but for the letter case or a trailing blank.
        : key == "Success" || key == "success " ? Entries{{u"response", quoted}, {u"status", key}}
                                                : Entries{{u"response", key}, {u"status", "success"}};
    ValueSet reply;
    for (const auto& [name, text] : entries) {
        reply.Insert(name, text ? PropertyValue::CreateString(hstring(utf8ToUtf16(*text)))
                                : nullptr);
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
                // A host that dies in the middle of a request.
                if (textOf(message, u"key") == "end-the-host") std::_Exit(1);
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
