// A recovery along its plan: copies from the store, the logs that the server no longer has, the
// roll-forward by the server, and what it came to for each database.
#pragma once

#include "client/module_session.h"
#include "client/recovery_journal.h"
#include "client/recovery_plan.h"
#include "client/restore_operation.h"

#include <string>
#include <vector>

namespace qrtln {

enum class RecoveryOutcome {
    recovered,    // rolled forward, and in its place
    only_its_set, // in its place as it is in its set
    uncertain,    // in its place, perhaps only as it is in its set
    in_place,     // an earlier run of the same recovery put it in its place
    waiting,      // not in its place: the restored copy waits
    failed,
};

const char* outcome_name(RecoveryOutcome outcome);

struct DatabaseRecovery {
    std::string path;   // of the original
    std::string target; // where it lies, or is to lie
    std::string set;
    std::int64_t set_ended = 0; // seconds since 1970
    RecoveryOutcome outcome = RecoveryOutcome::failed;
    std::string reason; // why not recovered

    // Whether a log could have done more, or the database is not in its place.
    bool falls_short() const;
};

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

// Whether an earlier run of this recovery put the database of this path in its place, as far as the
// journal and the files beside it tell.
bool was_put_in_place(const RecoveryJournal& journal, const std::string& path);

// Plans and carries out one recovery; `journal` is what an earlier run left of the same request, if
// it left something. Contents that turn out to be damaged are replaced by older ones, with a longer
// roll-forward. Failures of databases are in the result, and restored copies that could not be put
// in place wait, in the journal. Throws ClientError when it could not be started or went on no
// longer; the journal then has what a second run needs.
RecoveryResult run_recovery(const OperationContext& context, RecoveryRequest request,
                            const RecoveryJournalFile& file,
                            const std::optional<RecoveryJournal>& journal);

// Makes a scratch folder that abandon_recovery removes. Throws ClientError(failed).
std::string make_folder_for_proof(const std::string& tmp_dir, const std::string& data_directory);

// Takes back what an unfinished recovery has on the server: copies that wait, and logs. Returns
// warnings about what could not be removed.
std::vector<std::string> abandon_recovery(const RecoveryJournal& journal);

} // namespace qrtln
