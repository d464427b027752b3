// Compresses frames on all processors beside the thread that makes them, and gives them back to it
// in their order.
#pragma once

#include "client/base/file_io.h"
#include "client/base/ordered_work.h"
#include "client/store/compression.h"

#include <functional>
#include <memory>
#include <vector>

namespace qrtln {

class FrameQueue {
  public:
    // Gets a frame, compressed, on the thread that calls add() and finish().
    using Take = std::function<void(Bytes)>;
    explicit FrameQueue(CompressionLevel level);

    // A buffer for the plain bytes of a frame, empty: one that was used before, where there is one.
    std::vector<std::byte> buffer();
    // Takes the plain bytes of the next frame. Waits where many are under way. Throws what the
    // function and the compressor throw, for an earlier frame, too.
    void add(std::vector<std::byte> plain, Take take);
    // Waits for all frames, and gives the memory back that they took.
    void finish();

  private:
    CompressionLevel m_level;
    std::vector<std::vector<std::byte>> m_buffers;
    std::vector<std::unique_ptr<FrameCompressor>> m_compressors; // one a worker
    OrderedWork m_work; // the last: its threads use what stands above
};

} // namespace qrtln
