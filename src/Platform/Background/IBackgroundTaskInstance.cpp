#include "Platform/Background/IBackgroundTaskInstance.h"

namespace Quorvendale::Platform {

IBackgroundTaskInstance::~IBackgroundTaskInstance() = default;

}  // namespace Quorvendale::Platform
