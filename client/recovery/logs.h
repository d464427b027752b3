// The transaction logs that a recovery replays: which numbers it needs, and where each of them is.
#pragma once

#include "client/recovery/server_logs.h"
#include "client/recovery/stored_logs.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

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

// "the transaction logs 5 to 7 are missing; with those before them ... is reachable".
std::string describe(const MissingLogs& missing);

} // namespace qrtln
