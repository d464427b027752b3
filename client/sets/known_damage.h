// What is known to be damaged of a store before anything of its contents is read: blocks that
// `qrtln verify` found so, and files that are not there.
#pragma once

#include "client/sets/manifest.h"
#include "client/store/store.h"

#include <map>
#include <set>
#include <string>

namespace qrtln {

class KnownDamage {
  public:
    // `store` outlives it. Throws ClientError where its folders cannot be listed.
    explicit KnownDamage(Store& store);

    // Whether the content of an item is damaged or missing. Throws ClientError(no_permission).
    bool has(const ManifestItem& item) { return has(item.object, item.map); }
    // Likewise of a content, that of an item.
    bool has(const std::string& object, const MapPlace& map);

  private:
    bool has_map(const std::string& object, const MapPlace& place) const;

    Store& m_store;
    std::set<std::string> m_objects;
    std::map<std::string, std::set<std::uint32_t>> m_packs; // that are there, with what was noted
    std::map<MapPlace, bool> m_maps;                        // that were looked at
};

} // namespace qrtln
