#include "Platform/Foundation/Log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Quorvendale::Platform {
namespace {

std::atomic<bool> enabled{false};

bool isJournalStream(int descriptor) {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long device = 0, inode = 0;
    if (stream == nullptr || std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

// Standard error is not replaced while the process runs: asked once.
bool standardErrorIsTheJournal() {
    static const bool journal = isJournalStream(STDERR_FILENO);
    return journal;
}

// The syslog priority of each level, in LogLevel's order: err, warning, info.
constexpr char priorityDigits[] = {'3', '4', '6'};

}  // namespace

void logLine(LogLevel level, std::string_view text) noexcept {
    if (!enabled.load(std::memory_order_relaxed)) return;
    try {
        std::string line;
        if (standardErrorIsTheJournal()) {
            line = {'<', priorityDigits[static_cast<int>(level)], '>'};
        } else {
            line.append(program_invocation_short_name).append(": ");
        }
        line.append(text).push_back('\n');
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
    } catch (...) {
        // No memory for the line: a log line is never worth a failure of its own.
    }
}

void enableRuntimeLog() noexcept { enabled.store(true, std::memory_order_relaxed); }

}  // namespace Quorvendale::Platform
