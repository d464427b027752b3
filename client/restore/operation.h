// One restore operation of the module, along a plan.
//
// Every item is announced, written to a temporary name where the module said, checked against its
// hash, renamed, and only then finished: a damaged content never reaches a live database. One item
// is unfinished at a time.
#pragma once

#include "client/module/session.h"
#include "client/restore/plan.h"
#include "client/sets/owed.h"
#include "client/store/state_folder.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace qrtln {

struct FailedRestore {
    std::string path;
    std::string reason;
};

// [{"path", "reason"}], as commands print it.
nlohmann::json failures_json(const std::vector<FailedRestore>& list);

struct WaitingCopy {
    std::string path;       // of the original
    std::string copy;       // the restored, checked file
    std::string reason;     // why it was not put in place; empty: nobody asked for that
    bool untouched = false; // the live database is as it was; else it may be gone
    bool in_use = false;    // and somebody uses it
    std::string object;     // its content
};

struct KeptReplaced {
    std::string path; // what was replaced
    std::string kept; // as it was right before
};

struct RestoreResult {
    std::vector<std::string> restored;  // targets that hold what was to be restored
    std::vector<FailedRestore> failed;  // with those that the plan refused
    std::vector<FailedRestore> damaged; // the store's content is not what it should be
    std::vector<WaitingCopy> waiting;
    std::vector<KeptReplaced> kept_replaced;
    std::vector<std::string> warnings;
    std::string kept_folder; // where copies wait; empty: nothing is left
    bool noted = false;      // there, so that the next run uses those that were not activated
    std::uint64_t bytes = 0; // written
};

// Carries out the plan. Failures of items are in the result. Throws ClientError when the operation
// could not be started or went on no longer; copies that a failed activation left are then kept,
// and a message names them. A database that is put in place is written down in `owed` before that,
// as restored; where the list takes no more, a warning of the result says so.
RestoreResult run_restore_operation(const OperationContext& context, const RestorePlan& plan,
                                    OwedDatabases* owed = nullptr);

// The warning that databases are put in place and not owed.
std::string not_owed_text(const std::string& reason);

// Opens the store to write notes about the live databases in it. Getting data out must not need the
// right to write: a store that can only be read is opened so, and `problem` says why. Throws
// ClientError: no_store, locked, failed. The run-time data are those of `server`.
std::unique_ptr<Store> open_store_for_notes(const std::string& directory, const std::string& server,
                                            std::string& problem);

// Opens the store for what keeps notes and run-time data and touches no set: for changes, or with a
// folder for state for reading, and only so when the request does not write. Where the store can
// only be read, `way_out` becomes a part of the hint. Throws as the openings do.
std::unique_ptr<Store> open_store_or_state(const StateRequest& request, const std::string& way_out);

} // namespace qrtln
