// The names of blocks and of contents that are made of them.
#pragma once

#include "client/base/file_io.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace qrtln {

using BlockHash = std::array<std::byte, 32>; // the SHA-256 of a block's plain bytes

// Its first half, which a pack has of each block: small beside small blocks, and found by nobody
// for another content. That no two contents pass for one even where somebody can make two blocks
// with one such half is up to the name of the whole, which is made of whole hashes.
using ShortHash = std::array<std::byte, 16>;
ShortHash shorten(const BlockHash& hash);

std::string_view text_of(const BlockHash& hash); // its 32 bytes

// So many are read from a file at once.
inline constexpr std::uint32_t hashes_at_once = 4096;

class BlockHasher {
  public:
    BlockHasher();
    BlockHash operator()(Bytes block);

  private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> m_context;
};

// Blocks have one of these sizes; the last one of a content is what is left.
inline constexpr std::uint32_t smallest_block = 4096;
inline constexpr std::uint32_t largest_block = 65536;
inline constexpr std::uint32_t usual_block = 8192;
bool is_block_size(std::uint64_t size);

// Names a content by its blocks: "8192-" and the SHA-256 of a text that has a line for each, its
// hash in hexadecimal. Contents of the same bytes and block size have the same name, others never:
// split -b 8192 --filter=sha256sum FILE | cut -c 1-64 | sha256sum
class ContentName {
  public:
    explicit ContentName(std::uint32_t block_size);
    ~ContentName();
    ContentName(const ContentName&) = delete;
    ContentName& operator=(const ContentName&) = delete;
    void add(const BlockHash& hash);
    std::string finish();

  private:
    std::uint32_t m_block_size;
    std::unique_ptr<class Sha256> m_digest;
};

// The block size in the name of a content; 0 where the text is no such name, as that of a whole
// object, which is the SHA-256 of its bytes.
std::uint32_t block_size_of(const std::string& name);

} // namespace qrtln
