#include "client/store/pack_reader.h"

#include "client/base/text.h"
#include "client/store/digest.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <utility>

namespace qrtln {

namespace {

constexpr std::size_t maximal_table = std::size_t{256} << 20; // of a pack of 40 TiB

PackTrailer read_trailer(const StoredFile& source) {
    if (source.size < PackTrailer::size)
        throw PackDamage{"ends too early"};
    std::array<std::byte, PackTrailer::size> bytes{};
    source.read(source.size - bytes.size(), bytes);
    return parse_pack_trailer(bytes, source.size);
}

PackTable read_table(const StoredFile& source, const PackTrailer& trailer,
                     FrameDecompressor& decompressor) {
    if (trailer.table_size > maximal_table)
        throw PackDamage{"has a table that is too large"};
    std::vector<std::byte> frame(trailer.table_size);
    source.read(trailer.table_at, frame);
    if (BlockHasher()(frame) != trailer.table_hash)
        throw PackDamage{"has a table that differs from its SHA-256"};
    std::optional<std::size_t> size = plain_size(frame, maximal_table);
    std::string text(size.value_or(0), '\0');
    std::string problem = decompressor.decompress(frame, std::as_writable_bytes(std::span(text)));
    if (!size || !problem.empty())
        throw PackDamage{"has a table that " + (size ? problem : "is no frame")};
    return parse_pack_table(text, trailer);
}

} // namespace

std::shared_ptr<LoadedFrame> LoadedFrames::get() {
    auto unused = std::find_if(m_frames.begin(), m_frames.end(),
                               [](const auto& frame) { return frame.use_count() == 1; });
    if (unused == m_frames.end())
        return m_frames.emplace_back(std::make_shared<LoadedFrame>());
    (*unused)->problem.clear();
    (*unused)->hashes.clear();
    return *unused;
}

PackReader::PackReader(StoredFile source)
    : m_source(std::move(source)), m_trailer(read_trailer(m_source)),
      m_table(read_table(m_source, m_trailer, m_decompressor)) {}

const ShortHash& PackReader::hash(std::uint32_t block) {
    if (block >= m_table.blocks)
        throw PackDamage{fmt::format("has no block {}", block)};
    if (block < m_first_hash || block - m_first_hash >= m_hashes.size()) {
        m_hashes.resize(std::min(hashes_at_once, m_table.blocks - block));
        m_first_hash = block;
        m_source.read(m_trailer.hashes_at() + std::uint64_t{block} * sizeof(ShortHash),
                      std::as_writable_bytes(std::span(m_hashes)));
    }
    return m_hashes[block - m_first_hash];
}

void PackReader::decompress(const PackFrame& frame, FrameDecompressor& decompressor,
                            std::vector<std::byte>& stored, std::vector<std::byte>& plain) const {
    plain.resize(m_table.plain_size_of(frame.first_block, frame.blocks));
    stored.resize(frame.stored_size);
    m_source.read(frame.offset, stored);
    if (std::string problem = decompressor.decompress(stored, plain); !problem.empty())
        throw PackDamage{fmt::format("has a frame, of the blocks from {} on, that {}",
                                     frame.first_block, problem)};
}

void PackReader::load(const PackFrame& frame, FrameLoader& loader, LoadedFrame& loaded) const {
    try {
        decompress(frame, loader.decompressor, loader.stored, loaded.plain);
    } catch (const PackDamage& damage) {
        loaded.problem = damage.problem;
        loaded.plain.clear();
        return;
    }
    Bytes rest = loaded.plain;
    for (std::uint32_t i = 0; i < frame.blocks; ++i) {
        const std::uint32_t size = m_table.size_of(frame.first_block + i);
        loaded.hashes.push_back(loader.hasher(rest.first(size)));
        rest = rest.subspan(size);
    }
}

PackReader::Blocks PackReader::blocks_from(std::uint32_t block, std::uint32_t most) {
    const PackFrame* frame = m_table.frame_of(block);
    if (frame == nullptr)
        throw PackDamage{fmt::format("has no block {}", block)};
    if (frame != m_frame) {
        m_frame = nullptr;
        decompress(*frame, m_decompressor, m_stored, m_plain);
        m_frame = frame;
    }
    std::uint32_t before = block - frame->first_block;
    std::uint32_t count = std::min(most, frame->blocks - before);
    std::uint64_t offset = m_table.plain_size_of(frame->first_block, before);
    return {Bytes(m_plain).subspan(offset, m_table.plain_size_of(block, count)), count};
}

std::string PackReader::id() {
    Sha256 digest;
    for (std::uint32_t block = 0; block < m_table.blocks; ++block)
        digest.update(hash(block));
    return digest.finish();
}

} // namespace qrtln
