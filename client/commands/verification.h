// What `qrtln verify` finds: every byte that sets refer to, compared with its checksums.
#pragma once

#include "client/base/error.h"
#include "client/sets/set_links.h"
#include "client/store/store.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
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

// Which objects and packs are read, where it is not all of them; the others need only be there.
class ReadSubset {
  public:
    // "2/7": the second of seven parts, the same ones each time; "5%": so many, by chance; "0%":
    // none. Nothing for anything else.
    static std::optional<ReadSubset> parse(const std::string& text);
    // Whether it has the file of this hash.
    bool has(const std::string& hash);

  private:
    std::uint64_t m_part = 0; // of m_parts
    std::uint64_t m_parts = 0;
    double m_share = 0; // by chance, where there are no parts
    std::mt19937_64 m_chance{std::random_device{}()};
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
    std::size_t not_read = 0; // objects and packs
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
// every pack is checked whole, and what nothing refers to is told. Of objects and packs outside of
// `subset` only whether they are there.
void verify_sets(Store& store, const std::vector<std::string>& sets, const StoreFiles* files,
                 std::optional<ReadSubset> subset, Verification& result);

// What stands beside the manifests, and the indexes of the servers.
void verify_notes(Store& store, const std::vector<std::string>& sets, Verification& result);

} // namespace qrtln
