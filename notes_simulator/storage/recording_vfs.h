// A file-system layer under SQLite that records which pages of a database change while a backup
// of it is in progress, whichever process changes them.
//
// A backup context has a file that lists changes (see changesFile). SQLite writes to a database
// only under its exclusive lock, and a context begins and stops under the same lock: so the layer
// looks for the list once, when the exclusive lock is taken, and appends to it before each write.
//
// It also keeps rollback journals out of the data directory: they lie in the state folder.
#pragma once

#include "notes_simulator/server/server.h"

namespace notes_sim {

constexpr const char* kRecordingVfsName = "notes-simulator";

/// Registers the layer with SQLite; further calls do nothing. Throws StatusError.
void registerRecordingVfs();

/// Names the server whose databases this process opens from now on. Without one nothing is
/// recorded and journals lie beside their databases.
void setRecordingServer(const Server& server);
void clearRecordingServer();

} // namespace notes_sim
