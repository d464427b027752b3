// Writes a pack: blocks of contents, compressed in frames of neighbours, in one immutable file.
//
// Its id is the SHA-256 of the short hashes of its blocks, so that it says what is in it. A pack
// that is written anew because most of it is dead keeps the numbers and hashes of all its blocks,
// and with them its id: what refers to it stays as it is.
#pragma once

#include "client/base/file_io.h"
#include "client/store/frame_queue.h"
#include "client/store/pack_table.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace qrtln {

class PackWriter {
  public:
    using Sink = std::function<void(Bytes)>;
    // `sink` gets the bytes of the file, in their order; `queue` compresses, for other packs, too,
    // and outlives it.
    PackWriter(std::uint32_t block_size, FrameQueue& queue, Sink sink);
    PackWriter(const PackWriter&) = delete;
    PackWriter& operator=(const PackWriter&) = delete;

    // Adds a block of at most block_size bytes and returns its number.
    std::uint32_t add(Bytes block, const ShortHash& hash);
    // In a pack that is written anew: a block that it has no more.
    void add_dead(const ShortHash& hash, std::uint32_t size);
    // The next block begins a frame. Every content has frames of its own.
    void end_frame();

    std::uint32_t blocks() const { return static_cast<std::uint32_t>(m_hashes.size()); }
    // The frames that have ended.
    std::size_t frames() const { return m_table.frames.size() + m_compressed.size(); }
    // Plain bytes of the blocks that were added.
    std::uint64_t plain_size() const { return m_plain_size; }

    // Nothing is added any more. Returns the pack's id, 64 hexadecimal digits.
    std::string end();
    // Whether all frames that have ended are written; the others are compressed meanwhile.
    bool settled() const { return m_compressed.empty(); }
    // Waits for them, and writes what stands behind them. REQUIRES: end().
    void finish();
    // Bytes of the file, and those of some of its frames. REQUIRES: finish().
    std::uint64_t stored_size() const { return m_offset; }
    std::uint64_t size_of_frames(std::size_t first, std::size_t behind) const;

  private:
    void note(const ShortHash& hash, std::size_t size);
    void write(Bytes bytes);
    void write_frame(Bytes frame);

    FrameQueue& m_queue;
    Sink m_sink;
    std::uint64_t m_offset = 0;
    std::vector<std::byte> m_plain; // of the frame under way
    std::uint32_t m_plain_blocks = 0;
    std::uint64_t m_plain_size = 0;
    PackTable m_table;
    std::deque<PackFrame> m_compressed; // at the moment: place and size are not known yet
    std::vector<ShortHash> m_hashes;
};

} // namespace qrtln
