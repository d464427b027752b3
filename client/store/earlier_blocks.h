// The blocks of a content's earlier version, one after the other.
#pragma once

#include "client/store/block_hash.h"
#include "client/store/content_map.h"
#include "client/store/pack_folder.h"
#include "client/store/pack_reader.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace qrtln {

class EarlierBlocks {
  public:
    // `folder` outlives it.
    EarlierBlocks(const PackFolder& folder, ContentMap map);

    const ContentMap& map() const { return m_map; }

    struct Block {
        std::uint32_t pack = 0; // in the map's packs
        std::uint32_t number = 0;
        ShortHash hash;
        bool damaged = false; // it is known to be; its hash is good
    };
    // The next one. Nothing behind the last one, and for one that cannot be reached.
    std::optional<Block> next();

  private:
    struct Pack {
        std::unique_ptr<PackReader> reader; // nullptr where it cannot be read
        std::set<std::uint32_t> damaged;
        bool opened = false;
    };
    void open(std::uint32_t pack);

    const PackFolder& m_folder;
    ContentMap m_map;
    std::vector<Pack> m_packs;
    std::size_t m_run = 0;
    std::uint32_t m_done = 0; // of the run
};

} // namespace qrtln
