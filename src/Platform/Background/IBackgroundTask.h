// The background-task model: the host activates a task class, hands Run an
// IBackgroundTaskInstance, and keeps the task alive after Run returns for as
// long as a BackgroundTaskDeferral taken from that instance is not complete.
#pragma once

#include "Platform/Background/IBackgroundTaskInstance.h"

namespace Quorvendale::Platform {

class QV_PLATFORM_API IBackgroundTask : public virtual IInspectable {
public:
    virtual void Run(const com_ptr<IBackgroundTaskInstance>& taskInstance) = 0;

protected:
    ~IBackgroundTask() override;
};

}  // namespace Quorvendale::Platform
