// Writes one content in blocks: what its earlier version has in the same place is not stored again.
#pragma once

#include "client/store/block_hash.h"
#include "client/store/earlier_blocks.h"
#include "client/store/new_packs.h"
#include "client/store/store.h"

#include <optional>
#include <vector>

namespace qrtln {

class ContentWriter final : public ObjectWriter {
  public:
    // `packs` outlives it.
    ContentWriter(NewPacks& packs, const std::optional<BlockContent>& earlier);
    ~ContentWriter() override;
    void write(Bytes bytes) override;
    StoredObject finish() override;

  private:
    void add_block(Bytes block);
    std::uint32_t add_to_pack(Bytes block, const BlockHash& hash);
    bool is_as_earlier(const std::string& name) const;
    ContentMap map(const std::string& name) const;

    NewPacks& m_packs;
    const std::optional<BlockContent> m_earlier_content;
    std::optional<EarlierBlocks> m_earlier;
    std::string m_warning;
    BlockHasher m_hasher;
    ContentName m_name;
    std::vector<std::byte> m_rest; // of a block that is not whole yet
    // Its blocks; the packs are those of the earlier version, and behind them the new one.
    ContentMap m_map;
    std::uint32_t m_new_pack = 0;             // in m_map.packs
    std::optional<std::uint32_t> m_first_new; // in the new pack
    std::size_t m_first_frame = 0;            // of the new pack
    std::uint64_t m_changed_size = 0;
    std::vector<BlockMend> m_mends;
    bool m_finished = false;
};

} // namespace qrtln
