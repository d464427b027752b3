// What `qrtln verify` finds: every byte that sets refer to, compared with its checksums.
#pragma once

#include "client/base/error.h"
#include "client/sets/set_links.h"
#include "client/store/store.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

struct Damage {
    std::string what; // a manifest, an object, a pack or store.json
    std::string problem;
    std::vector<std::pair<std::string, std::string>> items; // set and path that it concerns
};

struct Verification {
    std::vector<Damage> damage;
    std::vector<std::string> information;
    std::set<std::string> servers; // that have sets
    SetLinks links;
    std::vector<ClientError>
        denied; // what this user may not read: nobody knows whether it is whole
    std::size_t sets = 0;
    std::size_t objects = 0;
    std::size_t contents = 0; // in blocks
    std::size_t packs = 0;
    std::uint64_t bytes = 0;
};

// Whether nothing that `read` looks at is kept from this user; what is, is noted once.
bool permitted(Verification& result, const std::function<void()>& read);

// What the store has beside its sets, listed before they are looked at: what a running backup adds
// meanwhile is then not called unreferenced.
struct StoreFiles {
    std::vector<std::string> objects;
    std::vector<std::string> packs;
    std::vector<std::string> maps;
    std::vector<std::string> foreign; // of no kind
};
StoreFiles list_store_files(Store& store, Verification& result);

// Looks at these sets and at all that they refer to. With `files`, the sets are all there are:
// every pack is checked whole, and what nothing refers to is told.
void verify_sets(Store& store, const std::vector<std::string>& sets, const StoreFiles* files,
                 Verification& result);

// What stands beside the manifests, and the indexes of the servers.
void verify_notes(Store& store, const std::vector<std::string>& sets, Verification& result);

} // namespace qrtln
