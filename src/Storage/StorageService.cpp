#include "StorageService.h"

#include <exception>
#include <string>

#include "Platform/AppService/AppServiceStatistics.h"
#include "Platform/AppService/AppServiceTriggerDetails.h"
#include "Platform/Text/TextConversion.h"
#include "ServiceIdentity.h"
#include "Storage/UwpStorage.h"

namespace Quorvendale::Storage {

using namespace Platform;

namespace {

std::string text(const ValueSet& message, const hstring& key) {
    return utf16ToUtf8(unbox_value<hstring>(message.Lookup(key)));
}

void setResponse(ValueSet& reply, std::u16string_view status, const std::string& response) {
    reply.Insert(u"response", PropertyValue::CreateString(hstring(utf8ToUtf16(response))));
    reply.Insert(u"status", PropertyValue::CreateString(status));
}

void setSuccess(ValueSet& reply, const std::string& response = {}) {
    setResponse(reply, u"success", response);
}

// Fills the reply for one request; anything a lookup or the store raises
// leaves here.
void execute(const ValueSet& message, ValueSet& reply) {
    if (!message.HasKey(u"command")) {
        setSuccess(reply);
        return;
    }
    const hstring command = unbox_value<hstring>(message.Lookup(u"command"));
    const std::string key = text(message, u"key");
    const std::string group = text(message, u"group");
    UwpStorage& storage = UwpStorage::instance();
    if (command == u"read") {
        setSuccess(reply, storage.read(group, key));
    } else if (command == u"write") {
        storage.write(group, key, text(message, u"data"));
        setSuccess(reply);
    } else if (command == u"remove") {
        storage.remove(group, key);
        setSuccess(reply);
    } else if (command == u"next") {
        setSuccess(reply, storage.next(group, key));
    } else {
        setResponse(reply, u"failed", "Unknown command");
    }
}

// The command as the host's statistics count it: the store's own names,
// "exists" for the empty request that probes the service, "other" for the
// rest, so that no peer can add names.
std::string_view countedCommand(const ValueSet& message) {
    if (!message.HasKey(u"command")) return "exists";
    try {
        const hstring command = unbox_value<hstring>(message.Lookup(u"command"));
        for (const std::string_view known : {"read", "write", "remove", "next"}) {
            if (command == hstring(utf8ToUtf16(known))) return known;
        }
    } catch (...) {
    }
    return "other";
}

// What answering the request holds beyond its message: a read holds its
// value about three times at once (the file's bytes, the answer's text, the
// frame it leaves in), and is let start only when that fits its client's
// share; everything else is small.
std::uint64_t memoryToAnswer(const ValueSet& message) {
    try {
        if (!message.HasKey(u"command") ||
            unbox_value<hstring>(message.Lookup(u"command")) != u"read") {
            return 0;
        }
        return 3 * UwpStorage::instance().sizeOf(text(message, u"group"), text(message, u"key"));
    } catch (...) {
        return 0;  // the request fails on its own, holding nothing
    }
}

void answer(const AppServiceRequest& request, const AppServiceDeferral& deferral) {
    ValueSet reply;
    bool failed = true;
    try {
        execute(request.Message(), reply);
        failed = unbox_value<hstring>(reply.Lookup(u"status")) != u"success";
    } catch (const std::exception& error) {
        setResponse(reply, u"failed", error.what());
    } catch (...) {
        // Platform errors (a missing or non-string entry among them) are not
        // standard exceptions and carry no text the client should see.
        setResponse(reply, u"failed", "Unknown exception");
    }
    AppServiceStatistics::request(countedCommand(request.Message()), failed);
    request.SendResponseAsync(reply).Completed([deferral](auto&, auto) { deferral.Complete(); });
}

}  // namespace

hstring StorageService::GetRuntimeClassName() const {
    return hstring(ServiceIdentity::serviceClassName);
}

void StorageService::Run(const com_ptr<IBackgroundTaskInstance>& taskInstance) {
    backgroundTaskDeferral = taskInstance->GetDeferral();
    // The handlers hold the service: it lives while its task and connection do.
    const com_ptr<StorageService> self(this);
    taskInstance->Canceled(
        [self](const auto& sender, auto reason) { self->onCanceled(sender, reason); });
    appServiceConnection =
        as<AppServiceTriggerDetails>(taskInstance->TriggerDetails())->AppServiceConnection();
    appServiceConnection.RequestReceived(
        [self](const auto& sender, const auto& args) { self->onRequestReceived(sender, args); });
}

void StorageService::onCanceled(const com_ptr<IBackgroundTaskInstance>&,
                                BackgroundTaskCancellationReason) {
    if (backgroundTaskDeferral) backgroundTaskDeferral.Complete();
}

void StorageService::onRequestReceived(const AppServiceConnection&,
                                       const AppServiceRequestReceivedEventArgs& args) {
    const AppServiceDeferral deferral = args.GetDeferral();
    const AppServiceRequest request = args.Request();
    request.WhenMemoryFits(memoryToAnswer(request.Message()),
                           [request, deferral] { answer(request, deferral); });
}

}  // namespace Quorvendale::Storage
