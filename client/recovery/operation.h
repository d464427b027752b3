// A recovery along its plan: copies from the store, the logs that the server no longer has, the
// roll-forward by the server, and what it came to for each database.
#pragma once

#include "client/module/session.h"
#include "client/recovery/journal.h"
#include "client/recovery/outcomes.h"
#include "client/recovery/plan.h"
#include "client/restore/operation.h"

#include <string>
#include <vector>

namespace qrtln {

struct RecoveryResult {
    std::vector<DatabaseRecovery> databases;
    std::vector<FailedRestore> failed;   // files and folders, and databases that the plan refused
    std::vector<FailedRestore> damaged;  // no set has a whole copy
    std::vector<FailedRestore> replaced; // an older copy took the place of a damaged one
    std::vector<std::string> restored;   // files and folders
    std::vector<std::string> warnings;
    std::string pending_folder;           // where copies wait; empty: none does
    bool logs_end_early = false;          // the server's own logs were lost
    std::optional<std::int64_t> logs_end; // where the stored ones end, if known
    std::uint64_t bytes = 0;              // written from the store
};

// Plans and carries out one recovery; `journal` is what an earlier run left of the same request, if
// it left something. Contents that turn out to be damaged are replaced by older ones, with a longer
// roll-forward. Failures of databases are in the result, and restored copies that could not be put
// in place wait, in the journal. Throws ClientError when it could not be started or went on no
// longer; the journal then has what a second run needs.
RecoveryResult run_recovery(const OperationContext& context, RecoveryRequest request,
                            const RecoveryJournalFile& file,
                            const std::optional<RecoveryJournal>& journal);

} // namespace qrtln
