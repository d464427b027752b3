// Maps: where each block of a content lies. A content is the bytes of one database or small file.
//
// The maps of what a run stored are one immutable file, each a Zstandard frame of one JSON
// document; the file's name is the SHA-256 of its bytes. What did not change since an earlier set
// has no map of its own in a later one: that refers to the earlier map.
#pragma once

#include "client/base/file_io.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

// Where a map lies.
struct MapPlace {
    std::string file = {}; // 64 hexadecimal digits; empty: there is none, the content is an object
    std::uint64_t offset = 0;
    std::uint64_t size = 0; // bytes of the frame
    bool operator==(const MapPlace&) const = default;
    auto operator<=>(const MapPlace&) const = default;
};

// Blocks of one pack that lie one behind the other, there and in the content.
struct BlockRun {
    std::uint32_t pack = 0; // in ContentMap::packs
    std::uint32_t first = 0;
    std::uint32_t blocks = 0;
};

struct UsedPack {
    std::string id;
    // How many blocks of this content and its earlier versions went there: those that are used no
    // more, too.
    std::uint64_t own_blocks = 0;
};

struct ContentMap {
    std::string name;       // the content's, as ContentName gives it
    std::uint64_t size = 0; // plain bytes
    std::uint32_t block_size = 0;
    std::vector<UsedPack> packs;
    std::vector<BlockRun> runs; // in the order of the content

    std::uint64_t blocks() const { return size / block_size + (size % block_size != 0 ? 1 : 0); }
    // Whether its blocks lie in so many packs, or are so small a part of what went there, that the
    // next version is better stored as a whole.
    bool is_scattered() const;
    // Adds a block behind the others.
    void add(std::uint32_t pack, std::uint32_t block);
};

// The frame of a map.
std::string serialize(const ContentMap& map);

// Reads it back. Returns nothing with `problem` set for anything that serialize did not write: runs
// that no pack can have, or that do not add up to the size, among them. What a pack really has is
// not known here.
std::optional<ContentMap> parse_content_map(Bytes frame, std::string& problem);

} // namespace qrtln
