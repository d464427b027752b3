#include "client/store/pack_writer.h"

#include "client/store/digest.h"

#include <utility>

namespace qrtln {

PackWriter::PackWriter(std::uint32_t block_size, Sink sink) : m_sink(std::move(sink)) {
    m_table.block_size = block_size;
    m_plain.reserve(std::size_t{block_size} * blocks_per_frame);
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
    m_plain.insert(m_plain.end(), block.begin(), block.end());
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
    Bytes frame = m_compressor.compress(m_plain);
    m_table.frames.push_back({m_offset, static_cast<std::uint32_t>(frame.size()),
                              blocks() - m_plain_blocks, m_plain_blocks});
    write(frame);
    m_plain.clear();
    m_plain_blocks = 0;
}

std::string PackWriter::finish() {
    end_frame();
    m_table.blocks = blocks();
    std::string table = serialize(m_table);
    Bytes frame = m_compressor.compress(as_bytes(table));
    PackTrailer trailer{m_offset, frame.size(), m_hashes.size(), BlockHasher()(frame)};
    write(frame);
    Bytes hashes = std::as_bytes(std::span(m_hashes));
    write(hashes);
    write(as_bytes(serialize(trailer)));
    Sha256 id;
    id.update(hashes);
    return id.finish();
}

} // namespace qrtln
