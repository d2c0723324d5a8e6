// The build found no SQLite (libsqlite3-dev): its cases are left out.
#include "LocalStorageBench.h"

namespace Bench {

void registerSqlite(const std::filesystem::path&) {}

}  // namespace Bench
