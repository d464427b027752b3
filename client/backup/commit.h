// The end of a backup: the set comes into being, and the server hears of it.
#pragma once

#include "client/backup/log_checks.h"
#include "client/backup/run.h"

namespace qrtln {

// In this order: objects and their folders are flushed, the manifest is written, the databases are
// no longer owed, the module hears STATUS=0. Before the manifest is there the set does not exist.
// Throws ClientError(server_error) when the set was stored but the server did not close the backup.
void commit_set(BackupRun& run, LogChecks& logs);

} // namespace qrtln
