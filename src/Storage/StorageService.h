// StorageService: the storage service's background task. The host activates
// it once per app-service connection and calls Run, which keeps the task
// alive with a deferral and serves every request of that connection on the
// process's one UwpStorage until the task is cancelled.
//
// A request is a ValueSet of strings: "command" ("read", "write", "remove" or
// "next"), "group", "key", and for "write" "data". The answer always holds
// "response" and "status" ("success" or "failed"; on failure "response" is
// the error's text). A request without "command" is a reachability probe and
// succeeds with an empty response.
#pragma once

#include "Platform/Activation/Module.h"
#include "Platform/AppService/AppServiceConnection.h"
#include "Platform/Background/IBackgroundTask.h"
#include "StorageServiceActivationFactory.h"

namespace Quorvendale::Storage {

class StorageService final : public Platform::IBackgroundTask {
public:
    Platform::hstring GetRuntimeClassName() const override;
    void Run(const Platform::com_ptr<Platform::IBackgroundTaskInstance>& taskInstance) override;

    void onCanceled(const Platform::com_ptr<Platform::IBackgroundTaskInstance>& sender,
                    Platform::BackgroundTaskCancellationReason reason);
    void onRequestReceived(const Platform::AppServiceConnection& sender,
                           const Platform::AppServiceRequestReceivedEventArgs& args);

private:
    Platform::Module::LiveObject live_{libraryModule()};
    Platform::BackgroundTaskDeferral backgroundTaskDeferral;
    Platform::AppServiceConnection appServiceConnection{nullptr};
};

}  // namespace Quorvendale::Storage
