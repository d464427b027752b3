#include "client/store/sealing.h"

#include "client/base/error.h"
#include "client/base/text.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <openssl/evp.h>
#include <sodium.h>

namespace qrtln {

namespace {

// A sealed file: chunks of so many plain bytes, each with its tag; the salt; the mark.
constexpr std::size_t chunk_size = 16384;
constexpr std::size_t tag_size = 16;
constexpr std::size_t sealed_chunk = chunk_size + tag_size;
constexpr std::size_t salt_size = 32;
constexpr std::string_view mark = "QRTLNSEA";
constexpr std::size_t footer_size = salt_size + mark.size();
constexpr std::size_t nonce_size = 12;
constexpr std::size_t chunks_at_once = 16;

// The name of a file: the mark of its id, then the id, encrypted.
constexpr std::size_t id_size = 32;
constexpr std::size_t name_mark_size = 16;

constexpr const char* not_as_sealed = "is not as it was sealed, or is another file";

const unsigned char* bytes_of(const void* data) {
    return static_cast<const unsigned char*>(data);
}

void require_sodium() {
    if (::sodium_init() < 0)
        throw ClientError(ExitCode::failed, "libsodium has no source of random numbers");
}

// BLAKE2b-256, or a part of it, with a key.
template <typename Output>
void keyed_hash(Output& output, std::size_t size, const SecretKey& key, std::string_view text) {
    crypto_generichash(reinterpret_cast<unsigned char*>(output.data()), size, bytes_of(text.data()),
                       text.size(), key.data(), SecretKey::size);
}

SecretKey derived(const SecretKey& key, std::string_view purpose) {
    SecretKey result;
    keyed_hash(result, SecretKey::size, key, purpose);
    return result;
}

// AES-256-GCM over the chunks of one file, in one direction.
class ChunkCipher {
  public:
    ChunkCipher(const SecretKey& key, bool seals)
        : m_seals(seals), m_context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free) {
        require(m_context != nullptr &&
                EVP_CipherInit_ex(m_context.get(), EVP_aes_256_gcm(), nullptr, key.data(), nullptr,
                                  seals ? 1 : 0) == 1);
    }

    // `sealed` has room for the plain bytes and the tag.
    void seal(std::uint64_t number, bool last, std::string_view name, Bytes plain,
              std::byte* sealed) {
        begin(number, last, name);
        int size = 0;
        int end = 0;
        auto* out = reinterpret_cast<unsigned char*>(sealed);
        require(EVP_CipherUpdate(m_context.get(), out, &size, bytes_of(plain.data()),
                                 static_cast<int>(plain.size())) == 1 &&
                EVP_CipherFinal_ex(m_context.get(), out + size, &end) == 1 &&
                EVP_CIPHER_CTX_ctrl(m_context.get(), EVP_CTRL_AEAD_GET_TAG, tag_size,
                                    out + plain.size()) == 1);
    }

    // `plain` has room for what stands before the tag. Throws PackDamage.
    void open(std::uint64_t number, bool last, std::string_view name, Bytes sealed,
              std::byte* plain) {
        begin(number, last, name);
        const Bytes tag = sealed.last(tag_size);
        const Bytes text = sealed.first(sealed.size() - tag_size);
        std::array<std::byte, tag_size> copy{}; // the function takes no constant
        std::copy(tag.begin(), tag.end(), copy.begin());
        int size = 0;
        int end = 0;
        auto* out = reinterpret_cast<unsigned char*>(plain);
        require(EVP_CipherUpdate(m_context.get(), out, &size, bytes_of(text.data()),
                                 static_cast<int>(text.size())) == 1 &&
                EVP_CIPHER_CTX_ctrl(m_context.get(), EVP_CTRL_AEAD_SET_TAG, tag_size,
                                    copy.data()) == 1);
        if (EVP_CipherFinal_ex(m_context.get(), out + size, &end) != 1)
            throw PackDamage{not_as_sealed};
    }

  private:
    static void require(bool done) {
        if (!done)
            throw ClientError(ExitCode::failed, "OpenSSL cannot encrypt with AES-256-GCM");
    }

    void begin(std::uint64_t number, bool last, std::string_view name) {
        std::array<unsigned char, nonce_size> nonce{};
        for (std::size_t i = 0; i < sizeof number; ++i)
            nonce[i] = static_cast<unsigned char>(number >> (8 * i) & 0xFF);
        nonce.back() = last ? 1 : 0;
        int size = 0;
        require(EVP_CipherInit_ex(m_context.get(), nullptr, nullptr, nullptr, nonce.data(),
                                  m_seals ? 1 : 0) == 1);
        if (last)
            require(EVP_CipherUpdate(m_context.get(), nullptr, &size, bytes_of(name.data()),
                                     static_cast<int>(name.size())) == 1);
    }

    bool m_seals;
    std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> m_context;
};

SecretKey key_of_file(const SecretKey& key, Bytes salt) {
    return derived(key, {reinterpret_cast<const char*>(salt.data()), salt.size()});
}

struct Layout {
    std::uint64_t plain_size = 0;
    std::uint64_t chunks = 0;
    std::size_t last_chunk = 0; // plain bytes of the last one
};

std::optional<Layout> layout_of(std::uint64_t size) {
    if (size < footer_size + tag_size)
        return std::nullopt;
    size -= footer_size;
    Layout layout;
    layout.chunks = (size + sealed_chunk - 1) / sealed_chunk;
    const std::uint64_t last = size - (layout.chunks - 1) * sealed_chunk;
    if (last < tag_size || (last == tag_size && layout.chunks > 1))
        return std::nullopt;
    layout.last_chunk = last - tag_size;
    layout.plain_size = size - layout.chunks * tag_size;
    return layout;
}

// Reads a sealed file from anywhere on.
class Unsealer {
  public:
    Unsealer(StoredFile file, const SecretKey& key, const std::string& name)
        : m_file(std::move(file)) {
        const std::optional<Layout> layout = layout_of(m_file.size);
        if (!layout)
            throw PackDamage{"ends too early"};
        m_layout = *layout;
        std::vector<std::byte> end(m_layout.last_chunk + tag_size + footer_size);
        m_file.read(m_file.size - end.size(), end);
        const Bytes footer = Bytes(end).last(footer_size);
        if (std::memcmp(footer.data() + salt_size, mark.data(), mark.size()) != 0)
            throw PackDamage{"does not end as every file of an encrypted store does"};
        m_key = key_of_file(key, footer.first(salt_size));
        m_last.resize(m_layout.last_chunk);
        ChunkCipher(m_key, false)
            .open(m_layout.chunks - 1, true, name, Bytes(end).first(m_layout.last_chunk + tag_size),
                  m_last.data());
    }

    std::uint64_t size() const { return m_layout.plain_size; }

    void read(std::uint64_t offset, std::span<std::byte> buffer) const {
        if (offset > size() || buffer.size() > size() - offset)
            throw PackDamage{"ends too early"};
        ChunkCipher cipher(m_key, false);
        std::vector<std::byte> sealed;
        while (!buffer.empty()) {
            const std::uint64_t first = offset / chunk_size;
            const std::size_t before = offset % chunk_size;
            if (first == m_layout.chunks - 1) {
                std::copy_n(m_last.begin() + static_cast<std::ptrdiff_t>(before), buffer.size(),
                            buffer.begin());
                return;
            }
            const std::uint64_t behind = (offset + buffer.size() + chunk_size - 1) / chunk_size;
            const std::uint64_t count = std::min<std::uint64_t>(
                {behind - first, chunks_at_once, m_layout.chunks - 1 - first});
            sealed.resize(count * sealed_chunk);
            m_file.read(first * sealed_chunk, sealed);
            const std::size_t done = open(cipher, first, sealed, before, buffer);
            buffer = buffer.subspan(done);
            offset += done;
        }
    }

  private:
    // Whole chunks, of which `before` bytes are left out and no more than the buffer are given.
    static std::size_t open(ChunkCipher& cipher, std::uint64_t number, Bytes sealed,
                            std::size_t before, std::span<std::byte> buffer) {
        std::array<std::byte, chunk_size> part;
        std::size_t done = 0;
        for (; !sealed.empty(); sealed = sealed.subspan(sealed_chunk), ++number, before = 0) {
            const std::size_t count = std::min(chunk_size - before, buffer.size() - done);
            const bool whole = count == chunk_size;
            std::byte* to = whole ? buffer.data() + done : part.data();
            cipher.open(number, false, {}, sealed.first(sealed_chunk), to);
            if (!whole)
                std::copy_n(part.begin() + static_cast<std::ptrdiff_t>(before), count,
                            buffer.begin() + static_cast<std::ptrdiff_t>(done));
            done += count;
        }
        return done;
    }

    StoredFile m_file;
    Layout m_layout;
    SecretKey m_key;
    std::vector<std::byte> m_last; // the plain bytes of the last chunk
};

std::string id_text(std::string_view folder, const std::string& id) {
    return fmt::format("{}/{}", folder, id);
}

// Both ways.
std::string cross(const SecretKey& key, std::string_view name_mark, std::string_view text) {
    std::array<unsigned char, crypto_stream_xchacha20_NONCEBYTES> nonce{};
    std::copy(name_mark.begin(), name_mark.end(), nonce.begin());
    std::string result(text.size(), '\0');
    crypto_stream_xchacha20_xor(reinterpret_cast<unsigned char*>(result.data()),
                                bytes_of(text.data()), text.size(), nonce.data(), key.data());
    return result;
}

std::string name_mark_of(const SecretKey& key, std::string_view folder, const std::string& id) {
    std::string result(name_mark_size, '\0');
    keyed_hash(result, name_mark_size, key, id_text(folder, id));
    return result;
}

} // namespace

SecretKey::~SecretKey() {
    ::sodium_memzero(m_bytes.data(), m_bytes.size());
}

SecretKey SecretKey::random() {
    require_sodium();
    SecretKey key;
    ::randombytes_buf(key.data(), size);
    return key;
}

Sealing::Sealing(const SecretKey& store_key) : m_store_key(store_key) {
    require_sodium();
    m_file_key = derived(store_key, "qrtln files");
    m_name_mark_key = derived(store_key, "qrtln marks of names");
    m_name_key = derived(store_key, "qrtln names");
    m_format_key = derived(store_key, "qrtln store.json");
}

std::string Sealing::stem_of(std::string_view folder, const std::string& id) const {
    const std::string name_mark = name_mark_of(m_name_mark_key, folder, id);
    return to_hex(name_mark + cross(m_name_key, name_mark, from_hex(id).value_or(id)));
}

std::optional<std::string> Sealing::id_of(std::string_view folder, std::string_view stem) const {
    const std::optional<std::string> bytes = from_hex(std::string(stem));
    if (!bytes || bytes->size() != name_mark_size + id_size)
        return std::nullopt;
    const std::string_view name_mark = std::string_view(*bytes).substr(0, name_mark_size);
    std::string id =
        to_hex(cross(m_name_key, name_mark, std::string_view(*bytes).substr(name_mark_size)));
    if (name_mark_of(m_name_mark_key, folder, id) != name_mark || to_hex(*bytes) != stem)
        return std::nullopt;
    return id;
}

StoredFile Sealing::unsealed(StoredFile file, const std::string& name) const {
    auto unsealer = std::make_shared<const Unsealer>(std::move(file), m_file_key, name);
    return {unsealer->size(), [unsealer](std::uint64_t offset, std::span<std::byte> buffer) {
                unsealer->read(offset, buffer);
            }};
}

std::string Sealing::sealed_document(std::string_view plain, const std::string& name) const {
    std::string sealed;
    FileSealer sealer(this, [&](Bytes bytes) {
        sealed.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    });
    sealer.write(as_bytes(plain));
    sealer.finish(name);
    return sealed;
}

std::string Sealing::unsealed_document(std::string_view sealed, const std::string& name) const {
    const Bytes all = as_bytes(sealed);
    const StoredFile file = unsealed({all.size(),
                                      [all](std::uint64_t offset, std::span<std::byte> buffer) {
                                          const Bytes part = all.subspan(offset, buffer.size());
                                          std::copy(part.begin(), part.end(), buffer.begin());
                                      }},
                                     name);
    std::string plain(file.size, '\0');
    file.read(0, std::as_writable_bytes(std::span(plain)));
    return plain;
}

std::string Sealing::format_mark(const std::string& id, std::uint32_t block_size) const {
    std::string result(SecretKey::size, '\0');
    keyed_hash(result, SecretKey::size, m_format_key, fmt::format("{} {}", id, block_size));
    return to_hex(result);
}

std::optional<std::uint64_t> unsealed_size(std::uint64_t size) {
    const std::optional<Layout> layout = layout_of(size);
    return layout ? std::optional(layout->plain_size) : std::nullopt;
}

std::pair<std::uint64_t, std::uint64_t> sealed_range(std::uint64_t begin, std::uint64_t end) {
    return {begin / chunk_size * sealed_chunk, (end + chunk_size - 1) / chunk_size * sealed_chunk};
}

FileSealer::FileSealer(const Sealing* sealing, Sink sink)
    : m_seals(sealing != nullptr), m_sink(std::move(sink)) {
    if (!m_seals)
        return;
    ::randombytes_buf(m_salt.data(), m_salt.size());
    m_key = key_of_file(sealing->m_file_key, m_salt);
}

// The last chunk waits: it is sealed as such.
void FileSealer::write(Bytes bytes) {
    if (!m_seals)
        return m_sink(bytes);
    m_plain.insert(m_plain.end(), bytes.begin(), bytes.end());
    if (m_plain.size() > chunks_at_once * chunk_size)
        seal((m_plain.size() - 1) / chunk_size);
}

void FileSealer::seal(std::size_t chunks) {
    ChunkCipher cipher(m_key, true);
    m_sealed.resize(chunks * sealed_chunk);
    const Bytes plain = m_plain;
    for (std::size_t i = 0; i < chunks; ++i)
        cipher.seal(m_chunks++, false, {}, plain.subspan(i * chunk_size, chunk_size),
                    m_sealed.data() + i * sealed_chunk);
    m_sink(m_sealed);
    m_plain.erase(m_plain.begin(),
                  m_plain.begin() + static_cast<std::ptrdiff_t>(chunks * chunk_size));
}

void FileSealer::finish(const std::string& name) {
    if (!m_seals)
        return;
    if (m_plain.size() > chunk_size)
        seal((m_plain.size() - 1) / chunk_size);
    m_sealed.resize(m_plain.size() + tag_size);
    ChunkCipher(m_key, true).seal(m_chunks, true, name, m_plain, m_sealed.data());
    m_sink(m_sealed);
    m_sink(m_salt);
    m_sink(as_bytes(mark));
}

} // namespace qrtln
