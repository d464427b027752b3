#include "client/store/frame_queue.h"

#include <utility>

namespace qrtln {

namespace {

// Memory of plain bytes under way: enough to keep all busy while the server copies the next
// database.
constexpr std::size_t most_compressed_bytes = std::size_t{48} << 20;

} // namespace

FrameQueue::FrameQueue(CompressionLevel level) : m_level(level), m_work(most_compressed_bytes) {
    m_compressors.resize(m_work.workers());
}

std::vector<std::byte> FrameQueue::buffer() {
    if (m_buffers.empty())
        return {};
    std::vector<std::byte> buffer = std::move(m_buffers.back());
    m_buffers.pop_back();
    buffer.clear();
    return buffer;
}

void FrameQueue::finish() {
    m_work.finish();
    m_buffers = {};
    for (std::unique_ptr<FrameCompressor>& compressor : m_compressors) // no worker has one now
        compressor.reset();
}

void FrameQueue::add(std::vector<std::byte> plain, Take take) {
    struct Frame {
        std::vector<std::byte> plain;
        std::vector<std::byte> compressed;
    };
    auto frame = std::make_shared<Frame>();
    frame->plain = std::move(plain);
    m_work.add(
        frame->plain.capacity(),
        [this, frame](std::size_t worker) {
            std::unique_ptr<FrameCompressor>& compressor = m_compressors[worker];
            if (!compressor)
                compressor = std::make_unique<FrameCompressor>(m_level);
            Bytes bytes = compressor->compress(frame->plain);
            frame->compressed.assign(bytes.begin(), bytes.end());
        },
        [this, frame, take = std::move(take)] {
            take(frame->compressed);
            m_buffers.push_back(std::move(frame->plain));
        });
}

} // namespace qrtln
