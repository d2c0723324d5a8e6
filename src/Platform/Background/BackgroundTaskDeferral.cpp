#include "Platform/Background/BackgroundTaskDeferral.h"

namespace Quorvendale::Platform {

BackgroundTaskDeferral::BackgroundTaskDeferral(std::function<void()> release)
    : release_(std::make_shared<Release>()) {
    release_->run = std::move(release);
}

void BackgroundTaskDeferral::Complete() const {
    if (release_ && !release_->done.exchange(true)) release_->run();
}

}  // namespace Quorvendale::Platform
