// What the store's manifests tell: the sets, and a set by a name that a person types.
#pragma once

#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

// One set of the store. A manifest that is damaged has a problem and nothing else.
struct CatalogueEntry {
    std::string set = {};
    std::optional<Manifest> manifest = {};
    std::string problem = {};
};

// Reads one set; never throws for damage, but ClientError(no_permission) as the store does.
CatalogueEntry load_set(Store& store, const std::string& set);

// Reads one set where it is one of a server: its paths are then where the data directory is now.
// Another's has neither a manifest nor a problem.
CatalogueEntry load_set(Store& store, const std::string& set, const ServerScope& scope);

// Which other servers the store has sets of, as a sentence, and how to take those; both are empty
// when there are none.
struct OtherServers {
    std::string what;
    std::string hint;
};
OtherServers other_servers(Store& store, const ServerScope& scope);

// The full name for "latest" (of a server, where there is a scope), a set's name, or a prefix that
// only one set has. Throws ClientError, no_such or failed, that says what there is.
std::string resolve_set(Store& store, const std::string& given, const ServerScope* scope = nullptr);

// The manifest of the set that `given` names, as above; with a scope its paths are where the data
// directory is now. Throws ClientError: damage_found for a manifest that is damaged, failed for
// another server's set.
Manifest require_set(Store& store, const std::string& given, const ServerScope* scope = nullptr);

// When everything that the set holds was complete, in seconds since 1970, rounded up: nothing later
// is in it, and `--at` that time or later takes it whole.
std::int64_t complete_at(const Manifest& manifest);

// What a differential or incremental backup builds on.
struct BaseSet {
    std::string set;
    std::int64_t started = 0; // seconds since 1970
    bool closed = true;       // the server closed its backup
};

// The newest complete full set of the whole server, or nothing. Sets whose manifests are damaged
// are passed over.
std::optional<BaseSet> find_base(Store& store, const ServerScope& scope);

// What the sets of a server since a base tell, the base included.
struct SetsSince {
    std::set<std::string> databases; // that some set holds
    std::string begun_before;        // a later set whose clock was before the start of the base
};

SetsSince look_at_sets_since(Store& store, const BaseSet& base, const ServerScope& scope);

// The paths of all databases that any set of this server holds, sorted.
std::vector<std::string> saved_databases(Store& store, const ServerScope& scope);

// The newest set of this server, or empty. One that cannot be read may be of any server.
std::string newest_set(Store& store, const ServerScope& scope);

// A name for a set that started at `started`: its time and level. It sorts after every name in the
// store, if need be with a later time.
std::string new_set_name(Store& store, std::int64_t started, const std::string& level);

} // namespace qrtln
