// What a recovery will do, decided and checked before anything is written.
#pragma once

#include "client/base/room.h"
#include "client/domino/notes_ini.h"
#include "client/recovery/instances.h"
#include "client/recovery/journal.h"
#include "client/recovery/logs.h"
#include "client/recovery/plan_logs.h"
#include "client/restore/plan.h"
#include "client/sets/owed.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

enum class RecoveryKind {
    in_place,    // the databases take the places of the live ones
    into_folder, // they are written below another folder, the live ones stay
    proof,       // likewise, and nothing but databases: no files or folders beside them, no lost
                 // folder of logs; the caller looks at the databases and cleans up
};

struct RecoveryRequest {
    RecoveryKind kind = RecoveryKind::in_place;
    SelectionRequest selection;     // its moment is set by the plan
    std::optional<std::int64_t> to; // seconds since 1970; nothing: to the end of the logs
    std::string into;               // the other folder, absolute; empty in place, and only there
    bool new_dbiid = false;
    bool replace_live = false; // also databases that hold what no set leads to
    bool logs_lost = false;    // the server's own logs are not only not mounted
    std::string from_server;   // as the options say it, for the journal
    std::string moved;         // likewise
    std::string tmp_dir;       // below it the restored copies wait
};

// What is known beside the store when a recovery is planned; each may be nullptr. All outlive it.
struct RecoverySituation {
    // Not asked without it: whatever lies in the places of databases is replaced.
    LiveDatabases* live = nullptr;
    const OwedDatabases* owed = nullptr;
    const RecoveryJournal* journal = nullptr; // of the same request, from an earlier run
    bool log_folder_was_lost = false;         // when this recovery began, whatever is there by now
};

// Why a database without transaction logging is brought back as it is in its set.
inline constexpr const char* not_logged_reason = "it is not transaction-logged";
inline constexpr const char* logging_off_reason =
    "the server has no transaction logging now (TRANSLOG_Status in notes.ini)";
inline constexpr const char* template_reason = "it is a template that the log does not cover";

// Whether the name is that of a template, which no log covers.
bool is_template(const std::string& path);

// A database that is to be recovered.
struct RecoveringDatabase {
    PlannedItem planned;
    std::int64_t set_started = 0; // of the set that it comes from, seconds since 1970
    std::int64_t set_ended = 0;
    // Why it is brought back as it is in its set, and no log rolls it forward; else empty.
    std::string only_its_set;
    // Why it may fall short of what is wanted although it is rolled forward; else empty.
    std::string doubt;
    bool same_instance = false; // as the live database, which the server could open
    // Until when it is known to have been the live instance, in seconds since 1970.
    std::int64_t same_until = 0;
    bool holds_more = false; // the live database holds what no set leads to, and is replaced
    // It is owed to the store from the moment on at which it is in its place.
    bool owed_then = false;
    bool set_aside = false; // the live file is no database any more, and gives way under a new name
};

struct RecoveryPlan {
    RecoveryKind kind = RecoveryKind::in_place;
    std::string data_directory;
    bool data_directory_missing = false;
    std::optional<std::int64_t> to;
    std::string into; // absolute; empty: in place
    bool new_dbiid = false;
    std::vector<RecoveringDatabase> databases;
    std::vector<PlannedItem> refused;
    // In their places since an earlier run of the same recovery, and left alone.
    std::vector<RecoveringDatabase> in_place_before;
    // Of databases of which only older copies are whole: why those do not reach the same end.
    std::map<std::string, std::string> no_whole_copy; // by path
    RestorePlan others;                               // folders and files that are missing
    RecoveryLogs logs;
    ServerLogs server_logs;
    std::vector<RoomNeeded> room;
    std::vector<std::string> warnings;

    bool in_place() const { return kind == RecoveryKind::in_place; }
    // Whether logs are needed: not all databases come back as they are in their sets.
    bool rolls_forward() const;
    // The folder of the server's own logs is lost, and comes back with the stored ones.
    bool restores_log_folder() const { return server_logs.missing && !logs.restore.empty(); }
};

// Makes the plan; writes nothing. Throws ClientError for a request that cannot be carried out, and
// when the server cannot be asked about its databases. Missing logs are in the plan.
RecoveryPlan make_recovery_plan(Store& store, const NotesIni& ini, const RecoveryRequest& request,
                                const RecoverySituation& situation = {});

// What the plan needs on each file system; databases in `whole`, by path, have their copies
// already.
std::vector<RoomNeeded> recovery_room(const RecoveryPlan& plan, const std::string& tmp_dir,
                                      const std::map<std::string, std::string>& whole);

// The log's full path in the folder of the server's logs.
std::string log_target(const RecoveryPlan& plan, const StoredLog& log);

} // namespace qrtln
