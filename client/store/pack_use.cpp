#include "client/store/pack_use.h"

#include <algorithm>

namespace qrtln {

void PackUse::add(const ContentMap& map) {
    for (const BlockRun& run : map.runs) {
        std::vector<bool>& used = m_packs[map.packs[run.pack].id];
        std::size_t behind = std::size_t{run.first} + run.blocks;
        if (used.size() < behind)
            used.resize(behind);
        std::fill_n(used.begin() + run.first, run.blocks, true);
    }
}

bool PackUse::uses(const std::string& pack, std::uint32_t block) const {
    auto found = m_packs.find(pack);
    return found != m_packs.end() && block < found->second.size() && found->second[block];
}

std::uint64_t PackUse::used_blocks(const std::string& pack) const {
    auto found = m_packs.find(pack);
    return found == m_packs.end() ? 0
                                  : static_cast<std::uint64_t>(std::count(
                                        found->second.begin(), found->second.end(), true));
}

} // namespace qrtln
