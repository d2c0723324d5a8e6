// The background-task model: the host activates a task class, hands Run an
// IBackgroundTaskInstance, and keeps the task alive after Run returns for as
// long as a BackgroundTaskDeferral taken from that instance is not complete.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "RuntimeObject.h"
#include "event.h"

namespace Quorvendale::Platform {

enum class BackgroundTaskCancellationReason { Abort = 0, Terminating = 1 };

class QV_PLATFORM_API BackgroundTaskDeferral {
public:
    BackgroundTaskDeferral() noexcept = default;
    explicit operator bool() const noexcept { return release_ != nullptr; }

    // Lets the task end; only the first call counts.
    void Complete() const;

    // For the instance that hands it out: release runs on the first Complete.
    explicit BackgroundTaskDeferral(std::function<void()> release);

private:
    struct Release {
        std::function<void()> run;
        std::atomic<bool> done{false};
    };
    std::shared_ptr<Release> release_;
};

class IBackgroundTaskInstance;
using BackgroundTaskCanceledEventHandler = std::function<void(
    const com_ptr<IBackgroundTaskInstance>& sender, BackgroundTaskCancellationReason reason)>;

class QV_PLATFORM_API IBackgroundTaskInstance : public virtual IInspectable {
public:
    virtual BackgroundTaskDeferral GetDeferral() = 0;
    virtual event_token Canceled(BackgroundTaskCanceledEventHandler handler) = 0;
    virtual void Canceled(event_token token) = 0;
    // What started the task: AppServiceTriggerDetails for an app-service task.
    virtual com_ptr<IInspectable> TriggerDetails() const = 0;

protected:
    ~IBackgroundTaskInstance() override;
};

class QV_PLATFORM_API IBackgroundTask : public virtual IInspectable {
public:
    virtual void Run(const com_ptr<IBackgroundTaskInstance>& taskInstance) = 0;

protected:
    ~IBackgroundTask() override;
};

}  // namespace Quorvendale::Platform
