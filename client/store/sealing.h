// How the files of an encrypted store are sealed, and what they are called there.
// docs/store-format.md has both to the byte.
#pragma once

#include "client/base/file_io.h"
#include "client/store/stored_file.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qrtln {

// 256 bits that nobody is to know. They are overwritten when it goes.
class SecretKey {
  public:
    static constexpr std::size_t size = 32;
    SecretKey() = default;
    SecretKey(const SecretKey&) = default;
    SecretKey& operator=(const SecretKey&) = default;
    ~SecretKey();
    // Made by chance.
    static SecretKey random();

    unsigned char* data() { return m_bytes.data(); }
    const unsigned char* data() const { return m_bytes.data(); }

  private:
    std::array<unsigned char, size> m_bytes{};
};

class Sealing {
  public:
    // By the key of the store.
    explicit Sealing(const SecretKey& store_key);

    const SecretKey& store_key() const { return m_store_key; }

    // What the file of an id, 64 hexadecimal digits, is called in a folder of the store: 96
    // hexadecimal digits that tell nobody the id who has not the key. And back: nothing for a name
    // that this key did not make, for this folder.
    std::string stem_of(std::string_view folder, const std::string& id) const;
    std::optional<std::string> id_of(std::string_view folder, std::string_view stem) const;

    // The file without its sealing. `name` is the one that it was sealed with. Throws PackDamage
    // for one that is not as it was sealed, or was sealed with another key or name; so does reading
    // it.
    StoredFile unsealed(StoredFile file, const std::string& name) const;
    // The same of a whole file in memory.
    std::string sealed_document(std::string_view plain, const std::string& name) const;
    std::string unsealed_document(std::string_view sealed, const std::string& name) const;

    // What store.json of a store with this id and block size has, so that a changed one is found.
    std::string format_mark(const std::string& id, std::uint32_t block_size) const;

  private:
    friend class FileSealer;
    SecretKey m_store_key;
    SecretKey m_file_key;
    SecretKey m_name_mark_key;
    SecretKey m_name_key;
    SecretKey m_format_key;
};

// The bytes that a sealed file of so many bytes has without its sealing; nothing for a size that
// none has.
std::optional<std::uint64_t> unsealed_size(std::uint64_t size);

// Where in such a file the bytes lie that it has from `begin` to `end` without its sealing.
std::pair<std::uint64_t, std::uint64_t> sealed_range(std::uint64_t begin, std::uint64_t end);

// Seals a file as it is written. Without a sealing the bytes go as they come.
class FileSealer {
  public:
    using Sink = std::function<void(Bytes)>;
    // `sealing` outlives it, or is nullptr; `sink` gets the bytes of the file, in their order.
    FileSealer(const Sealing* sealing, Sink sink);
    void write(Bytes bytes);
    // Nothing is written behind this. The file is sealed as the one of this name.
    void finish(const std::string& name);

  private:
    void seal(std::size_t chunks);

    bool m_seals;
    Sink m_sink;
    SecretKey m_key;
    std::array<std::byte, 32> m_salt{};
    std::uint64_t m_chunks = 0;
    std::vector<std::byte> m_plain; // of the chunks under way
    std::vector<std::byte> m_sealed;
};

} // namespace qrtln
