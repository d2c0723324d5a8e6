// The host's output: one line on standard error for each thing an
// administrator follows (start, stop) and each failure that it cannot report
// to a client. Where standard error is the journal (systemd says so in
// JOURNAL_STREAM), each line starts with its syslog priority, "<3>", which
// the journal takes off and keeps; elsewhere lines are plain, named after the
// program.
#pragma once

#include <string_view>

namespace Quorvendale::AppHost {

enum class LogPriority { error = 3, warning = 4, info = 6 };

void logLine(LogPriority priority, std::string_view text);

inline void logFailure(std::string_view text) { logLine(LogPriority::error, text); }
inline void logWarning(std::string_view text) { logLine(LogPriority::warning, text); }
inline void logInfo(std::string_view text) { logLine(LogPriority::info, text); }

// Whether standard error is the stream that JOURNAL_STREAM ("device:inode")
// names; read once.
bool standardErrorIsTheJournal();

}  // namespace Quorvendale::AppHost
