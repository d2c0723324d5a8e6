// The host's one kind of output: a line on standard error for each failure
// that it cannot report to a client.
#pragma once

#include <unistd.h>

#include <string>
#include <string_view>

namespace Quorvendale::AppHost {

inline void logFailure(std::string_view text) {
    // One write, so that lines of several threads never interleave.
    std::string line = "quorvendale-apphost: ";
    line.append(text).push_back('\n');
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace Quorvendale::AppHost
