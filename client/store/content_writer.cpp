#include "client/store/content_writer.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

ContentWriter::ContentWriter(NewPacks& packs, const std::optional<BlockContent>& earlier)
    : m_packs(packs), m_earlier_content(earlier), m_name(packs.block_size()) {
    m_map.block_size = packs.block_size();
    if (!earlier || block_size_of(earlier->name) != packs.block_size())
        return;
    try {
        ContentMap map = packs.folder().read_map(earlier->map, earlier->name);
        m_map.packs = map.packs;
        if (!map.is_scattered())
            m_earlier.emplace(packs.folder(), std::move(map));
    } catch (const PackDamage& damage) {
        m_warning = fmt::format("its earlier copy in the store {}: this one is stored whole",
                                damage.problem);
    }
    m_new_pack = static_cast<std::uint32_t>(m_map.packs.size());
}

ContentWriter::~ContentWriter() {
    if (!m_finished && m_first_new)
        m_packs.abandon(*m_first_new);
}

void ContentWriter::write(Bytes bytes) {
    m_map.size += bytes.size();
    const std::size_t block_size = m_packs.block_size();
    if (!m_rest.empty()) {
        Bytes missing = bytes.first(std::min(bytes.size(), block_size - m_rest.size()));
        m_rest.insert(m_rest.end(), missing.begin(), missing.end());
        bytes = bytes.subspan(missing.size());
        if (m_rest.size() == block_size) {
            add_block(m_rest);
            m_rest.clear();
        }
    }
    for (; bytes.size() >= block_size; bytes = bytes.subspan(block_size))
        add_block(bytes.first(block_size));
    m_rest.insert(m_rest.end(), bytes.begin(), bytes.end());
}

void ContentWriter::add_block(Bytes block) {
    BlockHash hash = m_hasher(block);
    m_name.add(hash);
    std::optional<EarlierBlocks::Block> earlier;
    if (m_earlier)
        earlier = m_earlier->next();
    if (earlier && earlier->hash != shorten(hash))
        earlier.reset();
    if (earlier && !earlier->damaged) {
        m_map.add(earlier->pack, earlier->number);
        return;
    }
    std::uint32_t number = add_to_pack(block, hash);
    m_map.add(m_new_pack, number);
    if (earlier)
        m_mends.push_back({m_map.packs[earlier->pack].id, earlier->number, number});
}

std::uint32_t ContentWriter::add_to_pack(Bytes block, const BlockHash& hash) {
    PackWriter& pack = m_packs.pack();
    if (!m_first_new) {
        pack.end_frame(); // of a content that did not come to its end
        m_first_new = pack.blocks();
        m_first_frame = pack.frames();
    }
    m_changed_size += block.size();
    return pack.add(block, shorten(hash));
}

bool ContentWriter::is_as_earlier(const std::string& name) const {
    return m_earlier && !m_first_new && m_earlier_content->name == name;
}

// With the packs that it uses, in the order of their use.
ContentMap ContentWriter::map(const std::string& name) const {
    constexpr std::uint32_t unused = UINT32_MAX;
    ContentMap map;
    map.name = name;
    map.size = m_map.size;
    map.block_size = m_map.block_size;
    map.runs = m_map.runs;
    std::vector<std::uint32_t> numbers(m_new_pack + 1, unused);
    for (BlockRun& run : map.runs) {
        std::uint32_t& number = numbers[run.pack];
        if (number == unused) {
            number = static_cast<std::uint32_t>(map.packs.size());
            map.packs.push_back(run.pack == m_new_pack ? UsedPack{} : m_map.packs[run.pack]);
        }
        if (run.pack == m_new_pack)
            map.packs[number].own_blocks += run.blocks;
        run.pack = number;
    }
    return map;
}

StoredObject ContentWriter::finish() {
    if (!m_rest.empty())
        add_block(m_rest);
    StoredObject stored;
    stored.hash = m_name.finish();
    stored.size = m_map.size;
    stored.changed_size = m_changed_size;
    stored.warning = m_warning;
    m_finished = true;
    if (is_as_earlier(stored.hash)) {
        stored.map = m_earlier_content->map;
        return stored;
    }
    FrameRange frames;
    if (m_first_new) {
        m_packs.pack().end_frame();
        frames = {m_first_frame, m_packs.pack().frames()};
    }
    stored.added = true;
    stored.number = m_packs.add(map(stored.hash), frames, std::move(m_mends));
    return stored;
}

} // namespace qrtln
