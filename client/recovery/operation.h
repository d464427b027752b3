// A recovery along its plan: copies from the store, the logs that the server no longer has, the
// roll-forward by the server, and what it came to for each database.
#pragma once

#include "client/module/session.h"
#include "client/recovery/journal.h"
#include "client/recovery/plan.h"
#include "client/recovery/report.h"
#include "client/restore/operation.h"

#include <optional>

namespace qrtln {

// Plans and carries out one recovery; `journal` is what an earlier run left of the same request, if
// it left something. Contents that turn out to be damaged are replaced by older ones, with a longer
// roll-forward. Failures of databases are in the result, and restored copies that could not be put
// in place wait, in the journal. Throws ClientError when it could not be started or went on no
// longer; the journal then has what a second run needs.
RecoveryResult run_recovery(const OperationContext& context, RecoveryRequest request,
                            const RecoveryJournalFile& file,
                            const std::optional<RecoveryJournal>& journal);

} // namespace qrtln
