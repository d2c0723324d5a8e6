// The library's only diagnostics: a line on standard output, written whole
// and flushed at once. The local client's factory and its `exists` are the
// only callers.
#pragma once

#include <string_view>

namespace Quorvendale::StorageClient {

void logLine(std::string_view text);

}  // namespace Quorvendale::StorageClient
