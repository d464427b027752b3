// A file-system layer under SQLite that records which pages of a database change while a backup
// of it is in progress, whichever process changes them.
//
// A backup context has a file that lists changes (see changesFile). SQLite writes to a database
// only under its exclusive lock, and a context begins and stops under the same lock: so the layer
// looks for the list once, when the exclusive lock is taken, and appends to it before each write.
//
// It also keeps rollback journals out of the data directory: they lie in the state folder.
#pragma once

#include "notes_simulator/server.h"

#include <cstdint>
#include <filesystem>

namespace notes_sim {

constexpr const char* kRecordingVfsName = "notes-simulator";

/// Registers the layer with SQLite; further calls do nothing. Throws StatusError.
void registerRecordingVfs();

/// Names the server whose databases this process opens from now on. Without one nothing is
/// recorded and journals lie beside their databases.
void setRecordingServer(const Server& server);
void clearRecordingServer();

/// One entry of a list of changes: bytes from offset on were written, or cut off the end.
struct ChangedRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

/// The list of changes of the database with this key; recording is on while it exists.
std::filesystem::path changesFile(const Server& server, const std::string& key);

/// Where the rollback journal of a database lies.
std::filesystem::path journalFile(const Server& server, const std::filesystem::path& database);

/// Rolls back what a killed process left half written in databases of the data directory, so that
/// no journal outlives the database file it belongs to.
void rollBackLeftoverJournals(const Server& server);

} // namespace notes_sim
