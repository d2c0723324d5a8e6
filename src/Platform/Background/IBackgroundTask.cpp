#include "Platform/Background/IBackgroundTask.h"

namespace Quorvendale::Platform {

IBackgroundTask::~IBackgroundTask() = default;

}  // namespace Quorvendale::Platform
