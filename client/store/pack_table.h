// What stands in a pack behind its frames: the table of them and the trailer. docs/store-format.md
// has a pack to the byte.
#pragma once

#include "client/base/file_io.h"
#include "client/store/block_hash.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// What is wrong with a pack or a map, to stand behind its name: "ends too early".
struct PackDamage {
    std::string problem;
};

// Frames end after so many blocks: enough for the compressor, little to read for a single block.
inline constexpr std::uint32_t blocks_per_frame = 64;

// Blocks that were compressed together. They are neighbours in the pack.
struct PackFrame {
    std::uint64_t offset = 0; // in the file
    std::uint32_t stored_size = 0;
    std::uint32_t first_block = 0;
    std::uint32_t blocks = 0;
};

struct PackTable {
    std::uint32_t block_size = 0;
    std::uint32_t blocks = 0;      // that the pack ever had
    std::vector<PackFrame> frames; // ascending; no longer those of dead blocks
    // The blocks that are shorter, ends of contents, ascending, with their sizes.
    std::vector<std::pair<std::uint32_t, std::uint32_t>> shorter;

    // The frame of a block; nullptr for one that is dead, or that the pack never had.
    const PackFrame* frame_of(std::uint32_t block) const;
    std::uint32_t size_of(std::uint32_t block) const;
    std::uint64_t plain_size_of(std::uint32_t first_block, std::uint32_t blocks) const;
    // The blocks that lie in frames.
    std::uint64_t present_blocks() const;
};

// The last bytes of a pack. Behind the table come the short hashes of the blocks.
struct PackTrailer {
    std::uint64_t table_at = 0;   // offset of the table, and the end of the frames
    std::uint64_t table_size = 0; // compressed
    std::uint64_t blocks = 0;
    BlockHash table_hash = {}; // of the compressed table

    static constexpr std::size_t size = 64; // bytes in the file
    std::uint64_t hashes_at() const { return table_at + table_size; }
};

std::string serialize(const PackTrailer& trailer);
// Reads the trailer of a file of `file_size` bytes, and checks that everything it tells of fits
// into that. Throws PackDamage.
PackTrailer parse_pack_trailer(Bytes bytes, std::uint64_t file_size);

std::string serialize(const PackTable& table);
// Reads the table of the pack with this trailer. Nothing in it is beyond what the file can have.
// Throws PackDamage.
PackTable parse_pack_table(const std::string& text, const PackTrailer& trailer);

} // namespace qrtln
