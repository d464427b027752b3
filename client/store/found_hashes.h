// The hashes of blocks as they were computed when packs were read, to be asked for in the order of
// contents. They stand in a file of TMPDIR that has no name: a store may have more than fit into
// memory.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/store/block_hash.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace qrtln {

class FoundHashes {
  public:
    // What is put belongs to this pack from here on.
    void begin_pack(const std::string& id, std::uint32_t blocks);
    // The hashes of neighbours. Throws ClientError where the file cannot take them.
    void put(std::uint32_t first_block, std::span<const BlockHash> hashes);
    // Some of the hashes from a block on, at least one and at most `most`; valid until the next
    // call. REQUIRES: they were put.
    std::span<const BlockHash> get(const std::string& id, std::uint32_t first_block,
                                   std::uint32_t most);

  private:
    FileDescriptor m_file;                        // opened for the first hash
    std::map<std::string, std::uint64_t> m_first; // of the packs, in the numbers of all blocks
    std::uint64_t m_pack = 0;                     // the first of the one that is put
    std::uint64_t m_end = 0;
    std::vector<BlockHash> m_read;
};

} // namespace qrtln
