// What the manifests of a store tell of each server, read once.
#pragma once

#include "client/ledger/ledger.h"
#include "client/recovery/instances.h"
#include "client/recovery/plan_databases.h"
#include "client/recovery/stored_logs.h"
#include "client/sets/known_damage.h"
#include "client/sets/log_chain.h"
#include "client/sets/server_scope.h"

#include <map>
#include <string>
#include <vector>

namespace qrtln {

// Of a copy what a recovery does not keep of it.
struct CopyFacts {
    std::int64_t from = 0; // the moment from which on a recovery takes it
    CopyLogging logging;
    MapPlace map;
};

struct DatabaseFacts {
    std::vector<SavedCopy> copies; // oldest set first
    std::vector<CopyFacts> facts;  // of each of these
    std::string last_listed;       // the newest set that names it, stored or not
    std::string failure;           // why that did not store it; empty: it did
    bool left_out = false;         // as somebody said
};

struct SetFacts {
    SetSummary summary;
    bool whole_system = false;
    bool complete = false;
    bool is_full = false; // full or copy
    std::string base;
};

struct ServerFacts {
    ServerScope scope;
    std::vector<SetFacts> sets;
    std::map<std::string, DatabaseFacts> databases; // by path
    StoredLogGathering logs;
    std::vector<ChainLink> links;        // without logs that are known to be damaged
    std::string newest_whole;            // the newest complete full or copy set of the whole server
    std::string newest_base;             // the newest complete full one
    std::vector<std::string> whole_sets; // complete full ones, oldest first
};

struct StoreFacts {
    std::vector<ServerFacts> servers;    // by name and data directory
    std::vector<LedgerFinding> findings; // damaged manifests, missing sets
};

// `damage` is of this store. Throws ClientError(no_permission).
StoreFacts read_store_facts(Store& store, KnownDamage& damage);

} // namespace qrtln
