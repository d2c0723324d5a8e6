// What a task's Run is handed: a way to outlive Run, cancellation, and what
// started the task.
#pragma once

#include <functional>

#include "Platform/Background/BackgroundTaskDeferral.h"
#include "Platform/Foundation/com_ptr.h"
#include "Platform/Foundation/event.h"

namespace Quorvendale::Platform {

enum class BackgroundTaskCancellationReason { Abort = 0, Terminating = 1 };

class IBackgroundTaskInstance;
using BackgroundTaskCanceledEventHandler = std::function<void(
    const com_ptr<IBackgroundTaskInstance>& sender, BackgroundTaskCancellationReason reason)>;

class QV_PLATFORM_API IBackgroundTaskInstance : public virtual IInspectable {
public:
    virtual BackgroundTaskDeferral GetDeferral() = 0;
    virtual event_token Canceled(BackgroundTaskCanceledEventHandler handler) = 0;
    // What started the task: AppServiceTriggerDetails for an app-service task.
    virtual com_ptr<IInspectable> TriggerDetails() const = 0;

protected:
    ~IBackgroundTaskInstance() override;
};

}  // namespace Quorvendale::Platform
