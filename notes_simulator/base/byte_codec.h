// Little-endian encoding of the simulator's binary files, and the identities that stand in them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace notes_sim {

using Bytes = std::vector<std::uint8_t>;
/// 16 bytes: a DBIID, a log id or a universal note id, as it lies in a UNIVERSALNOTEID.
using Id16 = std::array<std::uint8_t, 16>;
/// 8 bytes: a replica id or a DBID, as it lies in a TIMEDATE.
using Id8 = std::array<std::uint8_t, 8>;

/// Appends fixed-width little-endian values to a byte vector.
class ByteWriter {
  public:
    void u16(std::uint16_t value) { number(value, 2); }
    void u32(std::uint32_t value) { number(value, 4); }
    void u64(std::uint64_t value) { number(value, 8); }
    void raw(std::span<const std::uint8_t> bytes);
    void text(std::string_view bytes);

    Bytes bytes;

  private:
    void number(std::uint64_t value, int width);
};

/// Reads what ByteWriter wrote. Throws std::out_of_range when the bytes end too soon.
class ByteReader {
  public:
    explicit ByteReader(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}

    std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
    std::uint64_t u64() { return number(8); }
    std::span<const std::uint8_t> raw(std::size_t length);
    std::string text(std::size_t length);
    Id16 id16();
    std::size_t left() const { return m_bytes.size() - m_at; }

  private:
    std::uint64_t number(int width);

    std::span<const std::uint8_t> m_bytes;
    std::size_t m_at = 0;
};

/// CRC-32 of the bytes, continuing from an earlier result.
std::uint32_t checksum(std::span<const std::uint8_t> bytes, std::uint32_t previous = 0);

/// Lower-case hexadecimal digits of the bytes.
std::string hex(std::span<const std::uint8_t> bytes);

/// The inverse of hex. Throws StatusError(kInvalidArgument) for anything but 32 digits.
Id16 id16FromHex(std::string_view digits);

/// Fresh random identities.
Id16 randomId16();
Id8 randomId8();

/// A view of text as bytes.
inline std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

} // namespace notes_sim
