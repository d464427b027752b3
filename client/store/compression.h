// Zstandard streams: a compressor over a writing function, a decompressor over a reading one.
#pragma once

#include "client/base/file_io.h"

#include <functional>
#include <memory>
#include <vector>

struct ZSTD_CCtx_s;

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

} // namespace qrtln
