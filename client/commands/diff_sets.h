// What is different between two sets of a server, each as a restore of everything would give it.
#pragma once

#include "client/restore/selection.h"
#include "client/sets/manifest.h"
#include "client/store/store.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// What there was of a server up to a set.
struct SetState {
    Manifest manifest;
    // By the path as a person names it, below the data directory wherever that was. Transaction
    // logs are not among them.
    std::map<std::string, SelectedItem> items;
    // Whether what is not among them was not there; else only what the set itself holds is, as no
    // complete set of the whole server is before it.
    bool whole = true;
};

// The state that `qrtln restore --all --at SET` takes: of a complete full or copy set its own
// items, of any other with those of the newest complete one before it and the sets between. Where
// there is none, only what the set holds. Throws as the store does.
SetState state_of_set(Store& store, const Manifest& manifest);

enum class DifferenceKind { added, gone, changed };

struct Difference {
    DifferenceKind kind = DifferenceKind::changed;
    std::string path; // as in SetState
    const SelectedItem* before = nullptr;
    const SelectedItem* after = nullptr;
    bool content = false; // it is another
    // Of a content in blocks in both: how many of its blocks are other ones, of how many; nothing
    // where that is not known.
    std::optional<std::pair<std::uint64_t, std::uint64_t>> blocks = {};
    // What of the metadata is another: "mode", "owner", "group", "kind", "target" or "dbiid", with
    // both values as texts.
    struct Value {
        std::string name;
        std::string before;
        std::string after;
    };
    std::vector<Value> values = {};
};

struct SetDifferences {
    std::vector<Difference> list; // by path
    std::uint64_t same = 0;
    // What only one has where the other is not whole: nobody knows what became of it.
    std::vector<std::string> not_compared;
};

// Compares them; the result refers to both. Times alone are no difference. Throws ClientError for
// an interruption, and where the store cannot be read.
SetDifferences compare_sets(Store& store, const SetState& before, const SetState& after);

} // namespace qrtln
