// One backup operation of the module, stored as one set.
//
// Order, for what a crash leaves at any moment: objects are flushed and renamed one by one, then
// their folders, then the manifest, then the module hears STATUS=0. Before the manifest is there
// the set does not exist; a crash after it only makes the server keep logs that are stored already.
// Each database stands in the list of owed ones from before its preparation until after the
// manifest.
#pragma once

#include "client/backup/arguments.h"
#include "client/backup/busy_wait.h"
#include "client/backup/path_rules.h"
#include "client/module/session.h"
#include "client/sets/index_guard.h"
#include "client/sets/manifest.h"
#include "client/sets/owed.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

struct BackupContext : OperationContext {
    OwedDatabases& owed; // these outlive it
    IndexGuard& index;
    BusyWait& busy;
};

// The item that stands for the logs of the server, where it does not list them.
inline constexpr const char* log_phase_item = "transaction logs";

struct BackupRequest {
    std::string level;                       // "copy", "full", "diff" or "incr"
    std::vector<DatabaseArgument> arguments; // empty: the whole system
    SelectionScan scan;                      // of the arguments
    std::string reason;                      // goes into the manifest
    std::string base;                        // of diff and incr: a whole full set
    std::int64_t base_started = 0;           // seconds since 1970
    std::vector<std::pair<std::string, std::string>> missing_folders; // with the reason; they fail
    // Called when a complete set with transaction logs is safe, before the server hears of it.
    std::function<void()> before_logs_are_archived;
    // Full of the whole system: logs that the server does not list for it are taken in an operation
    // at incremental level, which begins an archiving session.
    bool log_session = false;
    // Of the whole system: whether the files are saved that the module does not know, and which
    // not.
    bool other_files = false;
    std::vector<PathRule> rules;
    bool reread = false;                  // also files that are as they were in an earlier set
    bool attachments_may_be_gone = false; // their folder may be missing or without any
    // Databases that could not be saved before this backup and may be missing.
    std::vector<ManifestItem> left_out;
};

// Runs the operation and returns the manifest of the set that was stored; a database of it is no
// longer owed. When the module hands out some items and fails at the next one, the set holds those,
// is incomplete and names the reason. A set with a reason that would hold nothing but databases
// which are left out is not stored: the manifest has no name of a set then. Throws ClientError when
// there is none: the module has then heard STATUS=1, the store holds nothing new, and what was
// prepared stays owed. Throws
// ClientError(server_error), too, when the set was stored but the server did not close the backup.
// The temporary folder is gone in every case.
Manifest run_backup_operation(const BackupContext& context, BackupRequest request);

} // namespace qrtln
