// The start of a backup: room for its copies, the module's operation, the description of the set.
#pragma once

#include "client/backup/run.h"

namespace qrtln {

// Makes the private folder for copies. Throws ClientError(failed) when the largest database has no
// room there: its copy would fail after the server has worked for it.
void make_room(BackupRun& run);

// Starts the module's operation; a second time where the first one ended what a killed run had left
// open on the server. Throws ClientError(server_error) with what to do about it.
void start_operation(BackupRun& run);

// Fills the manifest with everything but items. REQUIRES: the operation was started.
void describe_set(BackupRun& run);

} // namespace qrtln
