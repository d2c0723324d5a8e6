// BackgroundTaskInstance: the host's side of one running app-service task,
// built around the connection it serves.
//
// run() calls the task's Run; the task has ended once Run has returned and
// every deferral taken from the instance is complete (Ended() completes then).
// Canceled is raised once, on the pool: when the connection ends, whichever
// side ended it, or when the host calls Cancel. Its handlers are released
// after that one raise.
#pragma once

#include "Platform/AppService/AppServiceTriggerDetails.h"
#include "Platform/Background/IBackgroundTask.h"
#include "Platform/Foundation/AsyncCompletion.h"
#include "Platform/Foundation/HoldCount.h"
#include "Platform/Foundation/Mutex.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API BackgroundTaskInstance final : public IBackgroundTaskInstance {
public:
    static com_ptr<BackgroundTaskInstance> forConnection(const AppServiceConnection& connection);

    hstring GetRuntimeClassName() const override;
    BackgroundTaskDeferral GetDeferral() override;
    event_token Canceled(BackgroundTaskCanceledEventHandler handler) override;
    com_ptr<IInspectable> TriggerDetails() const override;

    // Runs the task; an exception from Run leaves here after the task's own
    // hold on the instance has been dropped.
    void run(IBackgroundTask& task);
    void Cancel(BackgroundTaskCancellationReason reason);
    IAsyncOperation<bool> Ended() const { return ended_.operation(); }

private:
    explicit BackgroundTaskInstance(com_ptr<IInspectable> triggerDetails);
    void dropHold();

    const com_ptr<IInspectable> triggerDetails_;
    event<const com_ptr<IBackgroundTaskInstance>&, BackgroundTaskCancellationReason> canceled_;
    HoldCount holds_;  // Run's own, dropped when it returns
    Mutex mutex_;
    bool cancelRaised_ QV_GUARDED_BY(mutex_) = false;
    AsyncCompletion<bool> ended_;
};

}  // namespace Quorvendale::Platform
