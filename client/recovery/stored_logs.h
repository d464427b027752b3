// The transaction logs that the sets of one server hold.
#pragma once

#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <functional>
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

// Gathers them out of manifests that somebody reads, the oldest set first.
class StoredLogGathering {
  public:
    // `is_damaged`: whether the content of an item is known to be damaged or missing.
    void add(const Manifest& manifest, const std::function<bool(const ManifestItem&)>& is_damaged);
    StoredLogs finish() &&;

  private:
    StoredLogs m_stored;
    std::vector<StoredLog> m_controls;
};

// The stored logs of all sets with this data directory. Items that are known to be damaged are
// named by path and object. Sets whose manifests cannot be read are left out.
StoredLogs load_stored_logs(Store& store, const ServerScope& scope,
                            const std::set<std::pair<std::string, std::string>>& damaged);

// Whether the logs that a set holds, or the nearest set before it that holds some, else behind it,
// are of the newest archive; true when no set has any.
bool has_newest_archive(const StoredLogs& stored, const std::string& set);

// A stored log of the newest archive.
struct PlacedLog {
    std::int64_t position = 0; // in the order of the logs, see LogPositions
    const StoredLog* log = nullptr;
};

// Those with the newest archive identity, in the order of their sets; they point into `stored`.
// REQUIRES: `stored` has logs.
std::vector<PlacedLog> place_newest_archive(const StoredLogs& stored);

} // namespace qrtln
