#include "client/store/compression.h"

#include "client/base/error.h"

#include <array>
#include <cstring>
#include <fmt/format.h>
#include <zstd.h>

namespace qrtln {

namespace {

constexpr std::size_t input_block = 256 * 1024;
constexpr int window_log = 21; // 2 MiB
// Up to this level the compressor passes over what does not compress faster than a sample is made.
constexpr CompressionLevel needs_no_sample = 4;

// How every frame begins: magic number, a checksum and no size in the header, the window. Bits of
// it can change without a change of the content; compared, none goes unnoticed.
constexpr std::array<unsigned char, 6> frame_header = {0x28, 0xB5, 0x2F, 0xFD, 0x04, 0x58};

void check(std::size_t result, const char* doing) {
    if (ZSTD_isError(result))
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot {}: {}", doing, ZSTD_getErrorName(result)));
}

// A shorter one is left to the decompressor.
bool begins_as_written(Bytes bytes) {
    return bytes.size() < frame_header.size() ||
           std::memcmp(bytes.data(), frame_header.data(), frame_header.size()) == 0;
}

using Context = std::unique_ptr<ZSTD_CCtx, std::size_t (*)(ZSTD_CCtx*)>;

Context make_context() {
    Context context(ZSTD_createCCtx(), ZSTD_freeCCtx);
    if (!context)
        throw ClientError(ExitCode::failed, "cannot compress: out of memory");
    return context;
}

// Without compression frames stay what they are, with blocks as they lie.
void set_level(const Context& context, CompressionLevel level) {
    check(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel,
                                 level == no_compression ? ZSTD_minCLevel() : level),
          "compress");
}

} // namespace

CompressionLevel CompressibleSample::level_for(Bytes bytes, CompressionLevel asked) {
    constexpr std::size_t piece = std::size_t{8} << 10;
    constexpr std::size_t pieces = 4;
    if (asked <= needs_no_sample || bytes.size() <= piece * pieces)
        return asked;
    if (!m_context) {
        m_context = make_context();
        set_level(m_context, usual_compression);
    }
    m_pieces.clear();
    for (std::size_t i = 0; i < pieces; ++i) {
        Bytes taken = bytes.subspan((bytes.size() - piece) / (pieces - 1) * i, piece);
        m_pieces.insert(m_pieces.end(), taken.begin(), taken.end());
    }
    m_output.resize(ZSTD_compressBound(m_pieces.size()));
    std::size_t size = ZSTD_compress2(m_context.get(), m_output.data(), m_output.size(),
                                      m_pieces.data(), m_pieces.size());
    check(size, "compress");
    return size > m_pieces.size() / 100 * 97 ? no_compression : asked;
}

Compressor::Compressor(CompressionLevel level, Sink sink)
    : m_sink(std::move(sink)), m_level(level), m_context(make_context()),
      m_output(ZSTD_CStreamOutSize()) {}

Compressor::~Compressor() = default;

void Compressor::begin(CompressionLevel level) {
    m_level.reset();
    set_level(m_context, level);
    check(ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_windowLog, window_log), "compress");
    check(ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_checksumFlag, 1), "compress");
    // One worker compresses while this thread reads and hashes. Small jobs keep its memory small.
    // A library without threads refuses these two and compresses in this thread.
    if (!ZSTD_isError(ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_nbWorkers, 1)))
        ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_jobSize, 2 << 20);
    run({}, false); // begins a frame of unknown size: an empty one has the header of all others
}

void Compressor::run(Bytes bytes, bool last) {
    ZSTD_inBuffer input{bytes.data(), bytes.size(), 0};
    ZSTD_EndDirective directive = last ? ZSTD_e_end : ZSTD_e_continue;
    for (;;) {
        ZSTD_outBuffer output{m_output.data(), m_output.size(), 0};
        std::size_t left = ZSTD_compressStream2(m_context.get(), &output, &input, directive);
        check(left, "compress");
        if (output.pos > 0)
            m_sink(Bytes(m_output.data(), output.pos));
        if (last ? left == 0 : input.pos == input.size)
            return;
    }
}

void Compressor::write(Bytes bytes) {
    if (bytes.empty())
        return;
    if (m_level)
        begin(CompressibleSample().level_for(bytes, *m_level));
    run(bytes, false);
}

void Compressor::finish() {
    if (m_level)
        begin(*m_level);
    run({}, true);
}

std::string decompress(const NextBytes& next, const std::function<void(Bytes)>& sink) {
    std::unique_ptr<ZSTD_DCtx, std::size_t (*)(ZSTD_DCtx*)> context(ZSTD_createDCtx(),
                                                                    ZSTD_freeDCtx);
    if (!context)
        throw ClientError(ExitCode::failed, "cannot decompress: out of memory");
    std::vector<std::byte> input_bytes(input_block);
    std::vector<std::byte> output_bytes(ZSTD_DStreamOutSize());
    bool frame_complete = false;
    for (bool first = true;; first = false) {
        const std::size_t got = next(input_bytes);
        if (got == 0)
            return frame_complete ? std::string() : "ends too early";
        if (first && !begins_as_written({input_bytes.data(), got}))
            return "does not begin as every object does";
        ZSTD_inBuffer input{input_bytes.data(), got, 0};
        while (input.pos < input.size) {
            if (frame_complete)
                return "has bytes after its end";
            ZSTD_outBuffer output{output_bytes.data(), output_bytes.size(), 0};
            std::size_t result = ZSTD_decompressStream(context.get(), &output, &input);
            if (ZSTD_isError(result))
                return std::string("does not decompress: ") + ZSTD_getErrorName(result);
            if (output.pos > 0)
                sink(Bytes(output_bytes.data(), output.pos));
            frame_complete = result == 0;
        }
        // What the decompressor still holds back comes out without new input.
        while (!frame_complete) {
            ZSTD_inBuffer none{nullptr, 0, 0};
            ZSTD_outBuffer output{output_bytes.data(), output_bytes.size(), 0};
            std::size_t result = ZSTD_decompressStream(context.get(), &output, &none);
            if (ZSTD_isError(result))
                return std::string("does not decompress: ") + ZSTD_getErrorName(result);
            frame_complete = result == 0;
            if (output.pos == 0)
                break;
            sink(Bytes(output_bytes.data(), output.pos));
        }
    }
}

// --- single frames

namespace {

constexpr std::size_t frame_descriptor = 4; // behind the magic number
// Bits that mean nothing: set in no frame of ours, and decompressed all the same.
constexpr unsigned unused_bits = 0x18;

bool is_as_written(Bytes frame) {
    return frame.size() > frame_descriptor &&
           (std::to_integer<unsigned>(frame[frame_descriptor]) & unused_bits) == 0;
}

// Zstandard would keep 768 KiB of tables for a frame at the usual level. 192 KiB stay in a
// processor's own cache beside the frame: compressing takes a tenth less processor time, databases
// get no larger by it, programs 1.6 %.
void set_match_tables(const Context& context, CompressionLevel level) {
    constexpr int by_level = 0;
    bool usual = level == usual_compression;
    constexpr int long_matches = 15;  // entries of 4 bytes, as a power of two
    constexpr int short_matches = 14; // chainLog is that of the second table at this level
    check(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_hashLog, usual ? long_matches : by_level),
          "compress");
    check(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_chainLog, usual ? short_matches : by_level),
          "compress");
}

} // namespace

FrameCompressor::FrameCompressor(CompressionLevel level)
    : m_level(level), m_context(make_context()) {
    check(ZSTD_CCtx_setParameter(m_context.get(), ZSTD_c_checksumFlag, 1), "compress");
}

Bytes FrameCompressor::compress(Bytes plain) {
    CompressionLevel level = m_sample.level_for(plain, m_level);
    set_level(m_context, level);
    set_match_tables(m_context, level);
    m_output.resize(ZSTD_compressBound(plain.size()));
    std::size_t size = ZSTD_compress2(m_context.get(), m_output.data(), m_output.size(),
                                      plain.data(), plain.size());
    check(size, "compress");
    return {m_output.data(), size};
}

FrameDecompressor::FrameDecompressor() : m_context(ZSTD_createDCtx(), ZSTD_freeDCtx) {
    if (!m_context)
        throw ClientError(ExitCode::failed, "cannot decompress: out of memory");
}

std::string FrameDecompressor::decompress(Bytes frame, std::span<std::byte> plain) {
    if (!is_as_written(frame) ||
        ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size())
        return "is no frame";
    std::size_t size = ZSTD_decompressDCtx(m_context.get(), plain.data(), plain.size(),
                                           frame.data(), frame.size());
    if (ZSTD_isError(size))
        return std::string("does not decompress: ") + ZSTD_getErrorName(size);
    return size == plain.size() ? "" : "has another size than is told of it";
}

std::optional<std::size_t> plain_size(Bytes frame, std::size_t limit) {
    unsigned long long size = ZSTD_getFrameContentSize(frame.data(), frame.size());
    return size <= limit ? std::optional<std::size_t>(size) : std::nullopt; // errors are larger
}

} // namespace qrtln
