// Reads a pack.
#pragma once

#include "client/base/file_io.h"
#include "client/store/compression.h"
#include "client/store/pack_table.h"
#include "client/store/stored_file.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qrtln {

// A frame as it was read: its plain bytes, and what the hashes of its blocks are by them.
struct LoadedFrame {
    std::string problem; // "has a frame that ..."; empty: it could be read
    std::vector<std::byte> plain;
    std::vector<BlockHash> hashes;
};

// Frames whose memory is used again, once nobody else has them.
class LoadedFrames {
  public:
    std::shared_ptr<LoadedFrame> get();

  private:
    std::vector<std::shared_ptr<LoadedFrame>> m_frames;
};

// Plain bytes of frames that are loaded side by side, at most.
inline constexpr std::size_t most_loaded_bytes = std::size_t{32} << 20;

// What reading frames takes; each thread has its own.
struct FrameLoader {
    FrameDecompressor decompressor;
    BlockHasher hasher;
    std::vector<std::byte> stored;
};

class PackReader {
  public:
    // Reads the trailer and the table. Throws PackDamage, as everything below does.
    explicit PackReader(StoredFile source);

    const PackTable& table() const { return m_table; }
    // What the pack has of the hash of a block, also of one that is dead.
    const ShortHash& hash(std::uint32_t block);
    // The plain bytes of a block and of those behind it, at most `most` and to the end of its
    // frame; valid until the next call. They are not compared with their hashes.
    struct Blocks {
        Bytes bytes;
        std::uint32_t count = 0;
    };
    Blocks blocks_from(std::uint32_t block, std::uint32_t most);
    // Reads, decompresses and hashes one of the table's frames; on any thread.
    void load(const PackFrame& frame, FrameLoader& loader, LoadedFrame& loaded) const;
    // The id by the hashes in the file, 64 hexadecimal digits.
    std::string id();

  private:
    void decompress(const PackFrame& frame, FrameDecompressor& decompressor,
                    std::vector<std::byte>& stored, std::vector<std::byte>& plain) const;

    StoredFile m_source;
    FrameDecompressor m_decompressor;
    PackTrailer m_trailer;
    PackTable m_table;
    std::uint32_t m_first_hash = 0; // of those in memory
    std::vector<ShortHash> m_hashes;
    const PackFrame* m_frame = nullptr; // the one in memory
    std::vector<std::byte> m_plain;
    std::vector<std::byte> m_stored;
};

} // namespace qrtln
