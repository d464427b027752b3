#include "client/sets/set_links.h"

#include "client/base/text.h"

#include <algorithm>
#include <set>

namespace qrtln {

const char* const missing_set_hint =
    "bring its files below sets/ back from a copy of the store; if it is gone for good, say so: "
    "`qrtln forget SET`, then take a full backup";

void SetLinks::add(const Manifest& manifest) {
    auto name = [&](const std::string& set, const std::string& why) {
        if (!set.empty())
            m_named.try_emplace(set, "the set " + manifest.set + why);
    };
    name(manifest.base, " builds on it");
    name(manifest.previous, " has logs that continue its");
    name(manifest.predecessor, " came after it");
    for (const std::string& set : {manifest.base, manifest.previous})
        if (!set.empty())
            m_built_on.try_emplace(set, manifest.set);
}

std::vector<MissingSet> SetLinks::missing(Store& store, bool notes) const {
    std::map<std::string, std::string> told = m_named;
    if (notes) // before the sets: a backup that ends meanwhile writes the manifest first
        for (const std::string& set : store.noted_sets())
            told.try_emplace(set, "a note of it is there");
    std::vector<std::string> names = store.set_names();
    std::set<std::string> known(names.begin(), names.end());
    for (const auto& [set, server] : store.absent_sets().all())
        known.insert(set);
    std::vector<MissingSet> missing;
    for (const auto& [set, why] : told)
        if (!known.contains(set))
            missing.push_back({set, why});
    return missing;
}

std::string SetLinks::built_on(const std::string& set) const {
    auto found = m_built_on.find(set);
    return found == m_built_on.end() ? std::string() : found->second;
}

std::string describe(const MissingSet& missing) {
    return "the set " + for_terminal(missing.set) + " is missing: " + for_terminal(missing.why);
}

} // namespace qrtln
