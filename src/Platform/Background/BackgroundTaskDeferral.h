// Handed out by a task instance: while one is not complete, the task goes on
// after its Run has returned.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

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

}  // namespace Quorvendale::Platform
