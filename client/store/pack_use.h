// Which blocks of which packs contents are made of.
#pragma once

#include "client/store/content_map.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace qrtln {

class PackUse {
  public:
    void add(const ContentMap& map);
    // The packs that have a block in use, with them.
    const std::map<std::string, std::vector<bool>>& packs() const { return m_packs; }
    bool uses(const std::string& pack, std::uint32_t block) const;
    // How many blocks of a pack are in use.
    std::uint64_t used_blocks(const std::string& pack) const;

  private:
    std::map<std::string, std::vector<bool>> m_packs; // a bit a block, as far as the last in use
};

} // namespace qrtln
