// The logs of a recovery that is planned, and what is said when some are missing.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/recovery/logs.h"
#include "client/restore/plan.h"
#include "client/store/store.h"

#include <optional>
#include <vector>

namespace qrtln {

struct RecoveryPlan;
struct RecoveryPlanning;

// The folder of the server's logs: where notes.ini says, else where the newest stored log was.
// Throws ClientError(failed) when it cannot be read.
ServerLogs look_at_logs(const NotesIni& ini, const StoredLogs& stored);

// Finds the logs that the databases of the plan need, with warnings about what they do not reach.
// Missing logs are in the plan; their `reachable` is that of the logs alone. Throws ClientError
// when the folder of the logs is lost and cannot come back where it was.
void plan_logs(const RecoveryPlanning& planning, RecoveryPlan& plan);

// Throws ClientError(logs_missing) when logs are missing that the plan needs, with the latest time
// that can be reached without them.
// REQUIRES: the plan's `reachable` is one for which there is a plan.
void require_logs(const RecoveryPlan& plan);

// The logs with which the databases among these items could be rolled forward later, to the end of
// the logs. Nothing when none of them is logged.
struct LaterRecovery {
    RecoveryLogs logs;
    ServerLogs server_logs;
};
std::optional<LaterRecovery> plan_later_recovery(Store& store, const NotesIni& ini,
                                                 const std::vector<PlannedItem>& items);

} // namespace qrtln
