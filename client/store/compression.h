// Zstandard: streams, a compressor over a writing function and a decompressor over a reading one,
// and single frames in memory.
#pragma once

#include "client/base/file_io.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct ZSTD_CCtx_s;
struct ZSTD_DCtx_s;

namespace qrtln {

// How strongly is compressed: a level of Zstandard, or not at all. The usual is with frames as long
// as ours as fast as the first, smaller, and faster to read.
using CompressionLevel = int;
inline constexpr CompressionLevel no_compression = 0;
inline constexpr CompressionLevel usual_compression = 3;
inline constexpr CompressionLevel strongest_compression = 19;

class Compressor {
  public:
    using Sink = std::function<void(Bytes)>;
    // `sink` receives the compressed bytes. Throws ClientError when there is no memory.
    Compressor(CompressionLevel level, Sink sink);
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;
    void write(Bytes bytes);
    // Writes the end of the frame.
    void finish();

  private:
    void begin(CompressionLevel level);
    void run(Bytes bytes, bool last);
    Sink m_sink;
    std::optional<CompressionLevel> m_level; // until it has begun
    std::unique_ptr<ZSTD_CCtx_s, std::size_t (*)(ZSTD_CCtx_s*)> m_context;
    std::vector<std::byte> m_output;
};

// Fills the buffer with what comes next, as far as there is something, and tells how much that was.
using NextBytes = std::function<std::size_t(std::span<std::byte> buffer)>;
// Decompresses the one frame that `next` gives into `sink`. Returns an empty text, or what is wrong
// with the data: damage, or bytes before or after the frame's end. What `next` throws comes
// through.
std::string decompress(const NextBytes& next, const std::function<void(Bytes)>& sink);

// Whether bytes are compressed already, by a few samples of them, where finding that out while they
// are compressed would take long.
class CompressibleSample {
  public:
    // The level for these bytes: the one asked for, or none.
    CompressionLevel level_for(Bytes bytes, CompressionLevel asked);

  private:
    std::unique_ptr<ZSTD_CCtx_s, std::size_t (*)(ZSTD_CCtx_s*)> m_context{nullptr, nullptr};
    std::vector<std::byte> m_pieces;
    std::vector<std::byte> m_output;
};

// Frames that tell their plain size and have a checksum.
class FrameCompressor {
  public:
    explicit FrameCompressor(CompressionLevel level);
    // Valid until the next call. Throws ClientError when there is no memory.
    Bytes compress(Bytes plain);

  private:
    CompressionLevel m_level;
    CompressibleSample m_sample;
    std::unique_ptr<ZSTD_CCtx_s, std::size_t (*)(ZSTD_CCtx_s*)> m_context;
    std::vector<std::byte> m_output;
};

class FrameDecompressor {
  public:
    FrameDecompressor();
    // Decompresses exactly one frame that has exactly as many bytes as `plain`. Returns an empty
    // text, or what is wrong with it: "does not decompress: ...".
    std::string decompress(Bytes frame, std::span<std::byte> plain);

  private:
    std::unique_ptr<ZSTD_DCtx_s, std::size_t (*)(ZSTD_DCtx_s*)> m_context;
};

// What a frame says of its plain size; nothing for bytes that are no such frame, or one of more
// than `limit` bytes.
std::optional<std::size_t> plain_size(Bytes frame, std::size_t limit);

} // namespace qrtln
