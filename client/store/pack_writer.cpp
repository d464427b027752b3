#include "client/store/pack_writer.h"

#include "client/store/compression.h"
#include "client/store/digest.h"

#include <numeric>
#include <utility>

namespace qrtln {

PackWriter::PackWriter(std::uint32_t block_size, FrameQueue& queue, Sink sink)
    : m_queue(queue), m_sink(std::move(sink)) {
    m_table.block_size = block_size;
}

void PackWriter::write(Bytes bytes) {
    m_sink(bytes);
    m_offset += bytes.size();
}

void PackWriter::note(const ShortHash& hash, std::size_t size) {
    if (size != m_table.block_size)
        m_table.shorter.emplace_back(blocks(), static_cast<std::uint32_t>(size));
    m_hashes.push_back(hash);
}

std::uint32_t PackWriter::add(Bytes block, const ShortHash& hash) {
    std::uint32_t number = blocks();
    if (m_plain_blocks == 0) {
        m_plain = m_queue.buffer();
        m_plain.reserve(std::size_t{m_table.block_size} * blocks_per_frame);
    }
    m_plain.insert(m_plain.end(), block.begin(), block.end());
    m_plain_size += block.size();
    ++m_plain_blocks;
    note(hash, block.size());
    if (m_plain_blocks == blocks_per_frame)
        end_frame();
    return number;
}

void PackWriter::add_dead(const ShortHash& hash, std::uint32_t size) {
    end_frame();
    note(hash, size);
}

void PackWriter::end_frame() {
    if (m_plain_blocks == 0)
        return;
    m_compressed.push_back({0, 0, blocks() - m_plain_blocks, m_plain_blocks});
    m_plain_blocks = 0;
    m_queue.add(std::move(m_plain), [this](Bytes frame) { write_frame(frame); });
}

void PackWriter::write_frame(Bytes bytes) {
    PackFrame frame = m_compressed.front();
    m_compressed.pop_front();
    frame.offset = m_offset;
    frame.stored_size = static_cast<std::uint32_t>(bytes.size());
    m_table.frames.push_back(frame);
    write(bytes);
}

std::uint64_t PackWriter::size_of_frames(std::size_t first, std::size_t behind) const {
    auto begin = m_table.frames.begin();
    return std::accumulate(
        begin + static_cast<std::ptrdiff_t>(first), begin + static_cast<std::ptrdiff_t>(behind),
        std::uint64_t{0},
        [](std::uint64_t size, const PackFrame& frame) { return size + frame.stored_size; });
}

std::string PackWriter::end() {
    end_frame();
    Sha256 id;
    id.update(std::as_bytes(std::span(m_hashes)));
    return id.finish();
}

void PackWriter::finish() {
    if (!settled())
        m_queue.finish();
    m_table.blocks = blocks();
    std::string table = serialize(m_table);
    FrameCompressor compressor(usual_compression);
    Bytes frame = compressor.compress(as_bytes(table));
    PackTrailer trailer{m_offset, frame.size(), m_hashes.size(), BlockHasher()(frame)};
    write(frame);
    Bytes hashes = std::as_bytes(std::span(m_hashes));
    write(hashes);
    write(as_bytes(serialize(trailer)));
}

} // namespace qrtln
