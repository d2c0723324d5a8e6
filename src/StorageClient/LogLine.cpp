#include "LogLine.h"

#include <cstdio>
#include <string>

namespace Quorvendale::StorageClient {

void logLine(std::string_view text) {
    // One write per line: lines of threads that log at once never mix.
    std::string line(text);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

}  // namespace Quorvendale::StorageClient
