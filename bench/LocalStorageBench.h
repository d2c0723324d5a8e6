// What LocalStorageBench's optional parts share with it.
#pragma once

#include <filesystem>
#include <string>

namespace Bench {

inline constexpr std::size_t payloadBytes = 100;

// The value every case writes and reads: 100 bytes of text.
inline const std::string& payload() {
    static const std::string value(payloadBytes, 'v');
    return value;
}

// Registers "sqlite replace" and "sqlite select" on a database in the
// folder, when the build has SQLite; otherwise nothing.
void registerSqlite(const std::filesystem::path& folder);

}  // namespace Bench
