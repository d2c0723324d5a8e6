#include "HostLog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Quorvendale::AppHost {
namespace {

bool isJournalStream(int descriptor) {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long device = 0, inode = 0;
    if (stream == nullptr || std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

}  // namespace

bool standardErrorIsTheJournal() {
    // Standard error is not replaced while the host runs.
    static const bool journal = isJournalStream(STDERR_FILENO);
    return journal;
}

void logLine(LogPriority priority, std::string_view text) {
    // One write, so that lines of several threads never interleave. The
    // journal names the program itself.
    std::string line = standardErrorIsTheJournal()
                           ? "<" + std::to_string(static_cast<int>(priority)) + ">"
                           : std::string("quorvendale-apphost: ");
    line.append(text).push_back('\n');
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace Quorvendale::AppHost
