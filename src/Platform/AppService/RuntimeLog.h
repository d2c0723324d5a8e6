// The runtime's own reports (a connection it cut off, and why) go to
// standard error as one line each, but only in a process that asks for them:
// the host does, so that they reach its journal. In an application's process
// the runtime is silent, since the application's output is its own.
#pragma once

#include <string>

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

// From here on the runtime's reports are written. Never undone.
QV_PLATFORM_API void enableRuntimeLog() noexcept;

namespace Details {
// One line of the runtime's own, if the process asked for them.
void logLine(const std::string& text) noexcept;
}  // namespace Details

}  // namespace Quorvendale::Platform
