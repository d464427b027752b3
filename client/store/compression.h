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

class Compressor {
  public:
    using Sink = std::function<void(Bytes)>;
    // `sink` receives the compressed bytes. Throws ClientError when there is no memory.
    explicit Compressor(Sink sink);
    ~Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;
    void write(Bytes bytes);
    // Writes the end of the frame.
    void finish();

  private:
    void run(Bytes bytes, bool last);
    Sink m_sink;
    std::unique_ptr<ZSTD_CCtx_s, std::size_t (*)(ZSTD_CCtx_s*)> m_context;
    std::vector<std::byte> m_output;
};

// Decompresses the one frame in `fd` into `sink`. Returns an empty text, or what is wrong with the
// data: a read error, damage, or bytes before or after the frame's end.
std::string decompress(int fd, const std::function<void(Bytes)>& sink);

// Frames that tell their plain size and have a checksum.
class FrameCompressor {
  public:
    FrameCompressor();
    // Valid until the next call. Throws ClientError when there is no memory.
    Bytes compress(Bytes plain);

  private:
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
