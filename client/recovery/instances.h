// Which instances of its databases the sets hold, and what that says of a recovery. A database
// becomes another instance (its DBIID changes) by a compaction, a restore or a repair: no log leads
// from one instance to the next, so that only a copy of the same instance reaches the same end.
#pragma once

#include "client/recovery/probe.h"
#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

// The copy of a database in one set.
struct SavedCopy {
    std::string set;
    std::string object;
    std::string dbiid;       // empty: not logged, or not known
    std::int64_t copied = 0; // seconds since 1970, rounded up: it was this instance until then
    // No log leads from the copies before to this one, whatever their instances.
    bool restored = false;
};

// By path, oldest set first.
using SavedCopies = std::map<std::string, std::vector<SavedCopy>>;

// The copies of these databases in all sets with this data directory. Sets whose manifests cannot
// be read are left out.
SavedCopies load_saved_copies(Store& store, const ServerScope& scope,
                              const std::set<std::string>& paths);

// The copy that an item of a set is.
SavedCopy saved_copy(const std::string& set, const ManifestItem& item);

// Whether the server told when the set was made that no transaction log covers the database.
bool is_not_logged(const ManifestItem& item);

// Why a live database that the server can open must not be replaced: it holds what no set leads to;
// else empty. `restored`: a restore or recovery put it in place, and it is not saved since. Without
// `live`, when the server was not asked, that alone counts. REQUIRES: its copies, not empty.
std::string reason_to_keep(const LiveDatabase* live, bool restored,
                           const std::vector<SavedCopy>& copies);

// Of a damaged copy that was newer than the one in `set`: why the older does not reach the same
// end; empty when it does, or when no newer one is damaged. `damaged` has the objects.
std::string reason_against_older(const std::vector<SavedCopy>& copies, const std::string& set,
                                 const std::set<std::string>& damaged);

// Until when the instance of the copy in `set` is known to have been the live one, in seconds since
// 1970: later sets hold the same. 0 when the set has no copy.
std::int64_t same_instance_until(const std::vector<SavedCopy>& copies, const std::string& set);

// Why a recovery of the copy in `set` to that moment may not be what was there then: the database
// may have become another instance before; else empty. `live` may be nullptr: not known. `restored`
// as above.
std::string reason_for_doubt(const std::vector<SavedCopy>& copies, const std::string& set,
                             std::int64_t moment, const LiveDatabase* live, bool restored);

} // namespace qrtln
