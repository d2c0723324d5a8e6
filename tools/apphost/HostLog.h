// The host's names for the runtime's log (Platform/Foundation/Log.h), which
// main() turns on first thing: start, stop and failures that no client can
// be told of, one line each on standard error or in the journal.
#pragma once

#include <string_view>

#include "Platform/Foundation/Log.h"

namespace Quorvendale::AppHost {

inline void logFailure(std::string_view text) {
    Platform::logLine(Platform::LogLevel::Failure, text);
}
inline void logWarning(std::string_view text) {
    Platform::logLine(Platform::LogLevel::Warning, text);
}
inline void logInfo(std::string_view text) { Platform::logLine(Platform::LogLevel::Info, text); }

}  // namespace Quorvendale::AppHost
