#include "notes_simulator/base/byte_codec.h"

#include "notes_simulator/base/status.h"

#include <zlib.h>

#include <algorithm>
#include <random>

namespace notes_sim {

void ByteWriter::number(std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void ByteWriter::raw(std::span<const std::uint8_t> more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void ByteWriter::text(std::string_view more) {
    raw(asBytes(more));
}

std::span<const std::uint8_t> ByteReader::raw(std::size_t length) {
    if (length > left()) {
        throw std::out_of_range("bytes end too soon");
    }
    const auto result = m_bytes.subspan(m_at, length);
    m_at += length;
    return result;
}

std::string ByteReader::text(std::size_t length) {
    const auto bytes = raw(length);
    return {bytes.begin(), bytes.end()};
}

Id16 ByteReader::id16() {
    Id16 id{};
    const auto bytes = raw(id.size());
    std::copy(bytes.begin(), bytes.end(), id.begin());
    return id;
}

std::uint64_t ByteReader::number(int width) {
    std::uint64_t value = 0;
    int shift = 0;
    for (const std::uint8_t byte : raw(static_cast<std::size_t>(width))) {
        value |= static_cast<std::uint64_t>(byte) << shift;
        shift += 8;
    }
    return value;
}

std::uint32_t checksum(std::span<const std::uint8_t> bytes, std::uint32_t previous) {
    return static_cast<std::uint32_t>(crc32_z(previous, bytes.data(), bytes.size()));
}

std::string hex(std::span<const std::uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

Id16 id16FromHex(std::string_view digits) {
    Id16 id{};
    if (digits.size() != id.size() * 2 ||
        digits.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
        throw StatusError(kInvalidArgument, "identity \"" + std::string(digits) + "\"");
    }
    const auto value = [](char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; };
    for (std::size_t i = 0; i < id.size(); ++i) {
        id[i] = static_cast<std::uint8_t>(value(digits[2 * i]) * 16 + value(digits[2 * i + 1]));
    }
    return id;
}

namespace {

template <class Id>
Id randomId() {
    std::random_device device;
    Id id{};
    for (auto& byte : id) {
        byte = static_cast<std::uint8_t>(device());
    }
    return id;
}

} // namespace

Id16 randomId16() {
    return randomId<Id16>();
}

Id8 randomId8() {
    return randomId<Id8>();
}

} // namespace notes_sim
