#include "client/store/earlier_blocks.h"

#include <utility>

namespace qrtln {

EarlierBlocks::EarlierBlocks(const PackFolder& folder, ContentMap map)
    : m_folder(folder), m_map(std::move(map)), m_packs(m_map.packs.size()) {}

void EarlierBlocks::open(std::uint32_t pack) {
    Pack& opened = m_packs[pack];
    opened.opened = true;
    try {
        opened.reader = m_folder.open_pack(m_map.packs[pack].id);
        opened.damaged = m_folder.damaged_blocks(m_map.packs[pack].id);
        if (opened.reader->table().block_size != m_map.block_size)
            opened.reader.reset();
    } catch (const PackDamage&) {
        opened.reader.reset();
    }
}

std::optional<EarlierBlocks::Block> EarlierBlocks::next() {
    if (m_run == m_map.runs.size())
        return std::nullopt;
    const BlockRun& run = m_map.runs[m_run];
    Block block{run.pack, run.first + m_done, {}, false};
    if (++m_done == run.blocks) {
        ++m_run;
        m_done = 0;
    }
    if (!m_packs[run.pack].opened)
        open(run.pack);
    Pack& pack = m_packs[run.pack];
    if (!pack.reader)
        return std::nullopt;
    block.damaged = pack.damaged.contains(block.number) ||
                    pack.reader->table().frame_of(block.number) == nullptr;
    try {
        block.hash = pack.reader->hash(block.number);
    } catch (const PackDamage&) {
        pack.reader.reset();
        return std::nullopt;
    }
    return block;
}

} // namespace qrtln
