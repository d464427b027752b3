#include "client/sets/known_damage.h"

#include "client/store/pack_folder.h"

#include <algorithm>

namespace qrtln {

KnownDamage::KnownDamage(Store& store) : m_store(store) {
    for (std::string& object : store.objects())
        m_objects.insert(std::move(object));
    for (const std::string& pack : store.packs().packs(nullptr))
        m_packs.emplace(pack, store.packs().damaged_blocks(pack));
}

bool KnownDamage::has(const std::string& object, const MapPlace& map) {
    if (map.file.empty())
        return !m_objects.contains(object) || m_store.is_noted_damaged(object);
    auto [known, is_new] = m_maps.try_emplace(map, false);
    if (is_new)
        known->second = has_map(object, map);
    return known->second;
}

bool KnownDamage::has_map(const std::string& object, const MapPlace& place) const {
    try {
        const ContentMap map = m_store.packs().read_map(place, object);
        return std::any_of(map.runs.begin(), map.runs.end(), [&](const BlockRun& run) {
            auto pack = m_packs.find(map.packs[run.pack].id);
            if (pack == m_packs.end())
                return true;
            auto damaged = pack->second.lower_bound(run.first);
            return damaged != pack->second.end() && *damaged - run.first < run.blocks;
        });
    } catch (const PackDamage&) {
        return true;
    }
}

} // namespace qrtln
