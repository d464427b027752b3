#include "client/store/block_hash.h"

#include "client/base/error.h"
#include "client/base/text.h"
#include "client/store/digest.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <fmt/format.h>
#include <openssl/evp.h>

namespace qrtln {

BlockHasher::BlockHasher() : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    if (!m_context || EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1)
        throw ClientError(ExitCode::failed, "cannot compute a SHA-256 digest");
}

BlockHash BlockHasher::operator()(Bytes block) {
    BlockHash hash;
    unsigned size = 0;
    // The algorithm stays: to look for it takes a lock, and as long as a small block.
    if (EVP_DigestInit_ex(m_context.get(), nullptr, nullptr) != 1 ||
        EVP_DigestUpdate(m_context.get(), block.data(), block.size()) != 1 ||
        EVP_DigestFinal_ex(m_context.get(), reinterpret_cast<unsigned char*>(hash.data()), &size) !=
            1 ||
        size != hash.size())
        throw ClientError(ExitCode::failed, "cannot compute a SHA-256 digest");
    return hash;
}

ShortHash shorten(const BlockHash& hash) {
    ShortHash half;
    std::copy_n(hash.begin(), half.size(), half.begin());
    return half;
}

std::string_view text_of(const BlockHash& hash) {
    return {reinterpret_cast<const char*>(hash.data()), hash.size()};
}

bool is_block_size(std::uint64_t size) {
    return size >= smallest_block && size <= largest_block && std::has_single_bit(size);
}

ContentName::ContentName(std::uint32_t block_size)
    : m_block_size(block_size), m_digest(std::make_unique<Sha256>()) {}

ContentName::~ContentName() = default;

void ContentName::add(const BlockHash& hash) {
    std::string line = to_hex(text_of(hash)) + "\n";
    m_digest->update(as_bytes(line));
}

std::string ContentName::finish() {
    return fmt::format("{}-{}", m_block_size, m_digest->finish());
}

std::uint32_t block_size_of(const std::string& name) {
    std::uint32_t size = 0;
    auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), size);
    std::string_view rest(end, static_cast<std::size_t>(name.data() + name.size() - end));
    bool named = error == std::errc() && is_block_size(size) && rest.starts_with('-') &&
                 is_sha256_hex(rest.substr(1)) && name[0] != '0';
    return named ? size : 0;
}

} // namespace qrtln
