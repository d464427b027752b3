// What lies in the state folder for a database: its rollback journal, and the list of what changes
// while it is backed up.
#pragma once

#include "notes_simulator/server/server.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace notes_sim {

/// One entry of a list of changes: bytes from offset on were written, or cut off the end.
struct ChangedRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

/// The list of changes of the database with this key; recording is on while it exists.
std::filesystem::path changesFile(const Server& server, const std::string& key);

inline constexpr std::string_view kJournalSuffix = "-journal";

/// Where the rollback journal of a database lies.
std::filesystem::path journalFile(const Server& server, const std::filesystem::path& database);

} // namespace notes_sim
