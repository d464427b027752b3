// The transaction logs that a recovery replays: which numbers it needs, and where each of them is.
#pragma once

#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// An item of a set: a transaction log, or the log control file.
struct StoredLog {
    std::string set;
    ManifestItem item;
    // Its object is known to be: the number is known, the content is not there.
    bool damaged = false;
    std::int64_t set_started = 0; // seconds since 1970: what was committed before is in the log
    std::string target_name = {}; // that it comes back under; empty: its own
};

// What the sets of one server hold, oldest set first.
struct StoredLogs {
    std::vector<StoredLog> logs;
    // Of the newest set that has one undamaged and logs of the newest identity beside it.
    std::optional<StoredLog> control;
};

// The stored logs of all sets with this data directory. Items that are known to be damaged are
// named by path and object. Sets whose manifests cannot be read are left out.
StoredLogs load_stored_logs(Store& store, const ServerScope& scope,
                            const std::set<std::pair<std::string, std::string>>& damaged);

// The folder of the server's own logs as it is now.
struct ServerLogs {
    std::string directory;                           // absolute; empty: unknown
    bool missing = false;                            // lost: no such folder, or an empty one
    bool has_control = false;                        // the log control file is there
    std::map<std::uint32_t, std::int64_t> last_used; // by number: modification time, nanoseconds
    // Names of files tell the numbers of the logs in them. If not, last_used has what
    // compare_with_stored() found, and nobody can see beforehand which logs behind the stored ones
    // are there.
    bool names_tell = true;
};

// Looks at the folder; a file counts as a log when its name has the form of one. Throws
// ClientError(failed) for a folder that is there and cannot be read.
ServerLogs look_at_server_logs(const std::string& directory);

// Looks whether names can be relied on: a server may use the file of an archived log again for a
// later one. A stored log whose name has another number, or none, and a file that has the name of a
// stored log and other content say that they cannot. `between` is called now and then and ends it
// by throwing.
void compare_with_stored(ServerLogs& server, const StoredLogs& stored,
                         const std::function<void()>& between = {});

// The number in a log's file name, "S0000012.TXN", or nothing.
std::optional<std::uint32_t> log_number_of(const std::string& file_name);

struct RecoveryLogNeeds {
    // The oldest set that a database comes from which is to be rolled forward.
    std::string oldest_set;
    std::optional<std::int64_t> to; // seconds since 1970; nothing: to the end of the logs
};

struct MissingLogs {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::string reason; // instead of numbers: why the server's logs do not continue the stored ones
    std::string hint;   // to the reason: what to do
    // The latest time that the logs before them reach for sure, in seconds since 1970. Whether a
    // copy from before that time is there is another question.
    std::optional<std::int64_t> reachable;
};

struct RecoveryLogs {
    bool any_stored = false; // else no set holds any
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::vector<StoredLog> restore; // those that the server has no longer, in their order
    // Of those that come back, some do not under their own names: others are there by now.
    bool renamed = false;
    std::optional<StoredLog> control; // to be restored with them when the folder is lost
    std::optional<MissingLogs> missing;
    // The end that is known when the server's own logs are lost, in seconds since 1970: the last
    // change of the newest stored log, or the start of the set that has it, if that is later.
    std::optional<std::int64_t> ends;
};

// Of the sets' logs those with the newest archive identity count: the server began a new log with
// each, which knows nothing of what was before it.
RecoveryLogs find_recovery_logs(const StoredLogs& stored, const ServerLogs& server,
                                const RecoveryLogNeeds& needs);

// Whether the logs that a set holds, or the nearest set before it that holds some, else behind it,
// are of the newest archive; true when no set has any.
bool has_newest_archive(const StoredLogs& stored, const std::string& set);

// "the transaction logs 5 to 7 are missing; with those before them ... is reachable".
std::string describe(const MissingLogs& missing);

} // namespace qrtln
