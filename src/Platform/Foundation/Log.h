// The one log of the runtime and of the programs built on it: a line on
// standard error for each thing an administrator follows and each failure
// that cannot be reported to anyone else. A process is silent until it
// calls enableRuntimeLog(): the host does, so that its lines reach its
// journal; in an application's process the runtime says nothing, since the
// application's output is its own.
//
// Where standard error is the journal (systemd names it in JOURNAL_STREAM),
// a line starts with its syslog priority, "<3>", which the journal takes off
// and keeps, and the journal names the program itself; elsewhere a line
// starts with the program's name, "quorvendale-apphost: ".
#pragma once

#include <string_view>

#include "Platform/Foundation/PlatformExport.h"

namespace Quorvendale::Platform {

enum class LogLevel { Failure, Warning, Info };

// Writes one line, in one write, so that the lines of threads that log at
// once never mix. Nothing is written before enableRuntimeLog().
QV_PLATFORM_API void logLine(LogLevel level, std::string_view text) noexcept;

// From here on lines are written. Never undone.
QV_PLATFORM_API void enableRuntimeLog() noexcept;

}  // namespace Quorvendale::Platform
