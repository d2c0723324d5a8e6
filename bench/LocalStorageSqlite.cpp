// SQLite in process, as a user would keep small values in it: one table of
// (group, key) -> value, WAL journal, commits not synced one by one (the
// store syncs nothing either), one statement per operation, each its own
// transaction.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include "LocalStorageBench.h"

namespace Bench {
namespace {

sqlite3* database = nullptr;

void execute(const char* sql) { sqlite3_exec(database, sql, nullptr, nullptr, nullptr); }

void run(benchmark::State& state, const char* sql, bool binding) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) != SQLITE_OK) {
        state.SkipWithError(sqlite3_errmsg(database));
        return;
    }
    for (auto _ : state) {
        if (binding) {
            sqlite3_bind_blob(statement, 1, payload().data(), static_cast<int>(payload().size()),
                              SQLITE_STATIC);
        }
        while (sqlite3_step(statement) == SQLITE_ROW) {
            benchmark::DoNotOptimize(sqlite3_column_blob(statement, 0));
        }
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
}

}  // namespace

void registerSqlite(const std::filesystem::path& folder) {
    if (sqlite3_open((folder / "bench.sqlite").c_str(), &database) != SQLITE_OK) return;
    execute("PRAGMA journal_mode=WAL");
    execute("PRAGMA synchronous=NORMAL");
    execute("CREATE TABLE entries (grp TEXT, key TEXT, value BLOB, PRIMARY KEY (grp, key))");
    execute("INSERT INTO entries VALUES ('bench', 'value', 'v')");
    benchmark::RegisterBenchmark(
        "sqlite replace", run, "INSERT OR REPLACE INTO entries VALUES ('bench', 'value', ?1)", true)
        ->UseRealTime();
    benchmark::RegisterBenchmark("sqlite select", run,
                                 "SELECT value FROM entries WHERE grp = 'bench' AND key = 'value'",
                                 false)
        ->UseRealTime();
}

}  // namespace Bench
