#include "Platform/Background/BackgroundTaskInstance.h"

#include "Platform/Foundation/ThreadPool.h"

namespace Quorvendale::Platform {

BackgroundTaskInstance::BackgroundTaskInstance(com_ptr<IInspectable> triggerDetails)
    : triggerDetails_(std::move(triggerDetails)) {}

com_ptr<BackgroundTaskInstance> BackgroundTaskInstance::forConnection(
    const AppServiceConnection& connection) {
    com_ptr<BackgroundTaskInstance> instance(
        new BackgroundTaskInstance(make<AppServiceTriggerDetails>(connection)));
    // The connection keeps the instance alive until it ends, then cancels it.
    connection.whenEnded([instance] { instance->Cancel(BackgroundTaskCancellationReason::Abort); });
    return instance;
}

hstring BackgroundTaskInstance::GetRuntimeClassName() const {
    return u"Windows.ApplicationModel.Background.BackgroundTaskInstance";
}

BackgroundTaskDeferral BackgroundTaskInstance::GetDeferral() {
    holds_.take();
    return BackgroundTaskDeferral(
        [self = com_ptr<BackgroundTaskInstance>(this)] { self->dropHold(); });
}

event_token BackgroundTaskInstance::Canceled(BackgroundTaskCanceledEventHandler handler) {
    return canceled_.add(std::move(handler));
}

com_ptr<IInspectable> BackgroundTaskInstance::TriggerDetails() const { return triggerDetails_; }

void BackgroundTaskInstance::run(IBackgroundTask& task) {
    struct DropRunHold {
        BackgroundTaskInstance* instance;
        ~DropRunHold() { instance->dropHold(); }
    } dropRunHold{this};
    task.Run(com_ptr<IBackgroundTaskInstance>(this));
}

void BackgroundTaskInstance::Cancel(BackgroundTaskCancellationReason reason) {
    {
        MutexLock lock(mutex_);
        if (cancelRaised_) return;
        cancelRaised_ = true;
    }
    ThreadPool::submit([self = com_ptr<BackgroundTaskInstance>(this), reason] {
        self->canceled_(com_ptr<IBackgroundTaskInstance>(self), reason);
        self->canceled_.clear();
    });
}

void BackgroundTaskInstance::dropHold() {
    if (holds_.drop()) ended_.Complete(true);
}

}  // namespace Quorvendale::Platform
