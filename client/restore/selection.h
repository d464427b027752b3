// What of which set is to be restored.
#pragma once

#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

struct SelectionRequest {
    std::vector<std::string> names; // databases, files or folders; relative: below the data folder
    bool all = false;               // the whole system
    std::string set;                // just what this set holds
    std::string at; // or the newest up to a moment, see parse_moment(); both empty: the newest
    // Only sets that ended before this time, in seconds since 1970: each of their databases is as
    // it was before it.
    std::optional<std::int64_t> ended_before = {};
    // Items, by path and object, that are passed over for older ones: their content is damaged.
    std::set<std::pair<std::string, std::string>> damaged = {};
    // Whether a database that a complete set left out comes from an older one. For a recovery of
    // everything such a copy is too old: perhaps no log leads on from it.
    bool older_for_left_out = true;
};

struct SelectedItem {
    std::string set;
    ManifestItem item;  // stored
    bool named = false; // by its own name, or with the whole system
    // A transaction log of another identity than the newest that counts: the server began a new log
    // since, and takes no other beside its control file.
    bool other_log = false;
};

struct RestoreSelection {
    std::string data_directory;      // of the server that was backed up
    std::vector<SelectedItem> items; // by path, each once
    std::vector<std::string> warnings;
    std::size_t hidden_logs = 0; // transaction logs whose paths newer ones have
};

// Chooses the items: of each name, or of everything, the newest that is stored in a set of this
// server, whatever the set's level. A folder, and the whole system, is what the newest full
// or copy set that covers it holds, with what later sets have of it. Up to a moment a copy counts
// that was complete then: of a set that was being made, the others come from older sets. Throws
// ClientError when a name is in no set, or no complete set covers the whole system.
RestoreSelection select_for_restore(Store& store, const ServerScope& scope,
                                    const SelectionRequest& request);

} // namespace qrtln
