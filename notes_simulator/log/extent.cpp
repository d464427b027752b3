#include "notes_simulator/log/extent.h"

#include "notes_simulator/base/status.h"
#include "notes_simulator/log/log_file.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

constexpr std::string_view kExtentMagic = "SIMTXN01";
constexpr std::uint32_t kRecordMagic = 0x44524353; // "SCRD"
constexpr std::size_t kRecordHeaderSize = 80;
constexpr std::size_t kLongestName = 4096;

std::size_t padded(std::size_t length) {
    return (length + 7) / 8 * 8;
}

/// The checksum counts the log's identity in, so that what an extent held before it was used again
/// is never taken for a record.
std::uint32_t recordChecksum(const Id16& logId, std::span<const std::uint8_t> record) {
    return checksum(record.subspan(8), checksum(logId));
}

} // namespace

std::string extentFileName(std::uint32_t number) {
    char name[32] = {};
    std::snprintf(name, sizeof name, "S%07u.TXN", number);
    return name;
}

std::optional<std::uint32_t> extentNumber(const std::string& name) {
    constexpr std::size_t digits = 7;
    unsigned number = 0;
    if (name.size() == extentFileName(0).size()) {
        std::from_chars(name.data() + 1, name.data() + 1 + digits, number);
        if (extentFileName(number) == name) {
            return number;
        }
    }
    return std::nullopt;
}

std::uint64_t largestPayload(std::uint64_t extentSize) {
    return extentSize - kExtentHeaderSize - kRecordHeaderSize - kLongestName - 8;
}

Bytes encodeExtentHeader(const ExtentHeader& header) {
    ByteWriter writer;
    writer.text(kExtentMagic);
    writer.raw(header.logId);
    writer.u32(header.number);
    writer.u32(header.free ? 1 : 0);
    writer.u64(header.firstRecord);
    writer.u64(static_cast<std::uint64_t>(header.created));
    writer.u32(checksum(writer.bytes));
    writer.bytes.resize(kExtentHeaderSize);
    return writer.bytes;
}

std::optional<ExtentHeader> decodeExtentHeader(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < kExtentHeaderSize) {
        return std::nullopt;
    }
    ByteReader reader(bytes);
    ExtentHeader header;
    const std::string magic = reader.text(kExtentMagic.size());
    header.logId = reader.id16();
    header.number = reader.u32();
    header.free = reader.u32() != 0;
    header.firstRecord = reader.u64();
    header.created = static_cast<std::int64_t>(reader.u64());
    const bool whole = reader.u32() == checksum(bytes.first(48));
    return whole && magic == kExtentMagic ? std::optional(header) : std::nullopt;
}

Bytes encodeRecord(const Id16& logId, const LogRecord& record) {
    ByteWriter body;
    body.u32(0); // magic and checksum come last
    body.u32(0);
    const std::size_t length =
        padded(kRecordHeaderSize + record.database.size() + record.payload.size());
    body.u32(static_cast<std::uint32_t>(length));
    body.u32(static_cast<std::uint32_t>(record.database.size()));
    body.u32(static_cast<std::uint32_t>(record.payload.size()));
    body.u32(0);
    body.u64(record.number);
    body.u64(record.previous);
    body.u64(record.commit);
    body.u64(static_cast<std::uint64_t>(record.time));
    body.raw(record.dbiid);
    body.u64(0);
    body.text(record.database);
    body.raw(record.payload);
    body.bytes.resize(length);
    ByteWriter front;
    front.u32(kRecordMagic);
    front.u32(recordChecksum(logId, body.bytes));
    std::copy(front.bytes.begin(), front.bytes.end(), body.bytes.begin());
    return body.bytes;
}

std::optional<LogRecord> readRecord(int fd, const Id16& logId, std::uint64_t position,
                                    std::uint64_t* next) {
    const Bytes header = readAt(fd, kRecordHeaderSize, position);
    if (header.size() < kRecordHeaderSize || ByteReader(header).u32() != kRecordMagic) {
        return std::nullopt;
    }
    ByteReader sizes{std::span(header).subspan(8)};
    const std::size_t length = sizes.u32();
    const std::size_t nameLength = sizes.u32();
    const std::size_t payloadLength = sizes.u32();
    if (nameLength > kLongestName ||
        length != padded(kRecordHeaderSize + nameLength + payloadLength)) {
        return std::nullopt;
    }
    const Bytes bytes = readAt(fd, length, position);
    if (bytes.size() != length) {
        return std::nullopt;
    }
    ByteReader reader(bytes);
    reader.u32();
    if (reader.u32() != recordChecksum(logId, bytes)) {
        return std::nullopt;
    }
    reader.raw(16);
    LogRecord record;
    record.number = reader.u64();
    record.previous = reader.u64();
    record.commit = reader.u64();
    record.time = static_cast<std::int64_t>(reader.u64());
    record.dbiid = reader.id16();
    reader.u64();
    record.database = reader.text(nameLength);
    const auto payload = reader.raw(payloadLength);
    record.payload.assign(payload.begin(), payload.end());
    record.position = position;
    *next = position + length;
    return record;
}

std::optional<ExtentHeader> extentHeaderOf(const fs::path& file) {
    const LogFile extent(file, O_RDONLY);
    return decodeExtentHeader(readAt(extent.fd(), kExtentHeaderSize, 0));
}

ExtentHeader readExtentHeader(const fs::path& file) {
    const auto header = extentHeaderOf(file);
    if (!header) {
        throw StatusError(kLogDamaged, file.string());
    }
    return *header;
}

void freeExtent(const fs::path& file) {
    ExtentHeader header = readExtentHeader(file);
    header.free = true;
    const LogFile extent(file, O_RDWR);
    writeAt(extent.fd(), encodeExtentHeader(header), 0);
}

void readExtent(const fs::path& file, const std::function<bool(const LogRecord&)>& visit) {
    const LogFile extent(file, O_RDONLY);
    const ExtentHeader header = readExtentHeader(file);
    std::uint64_t position = kExtentHeaderSize;
    std::uint64_t expected = header.firstRecord;
    while (auto record = readRecord(extent.fd(), header.logId, position, &position)) {
        record->extent = header.number;
        if (record->number != expected++ || !visit(*record)) {
            return;
        }
    }
}

LogRecord readRecordAt(const fs::path& file, std::uint64_t position) {
    const LogFile extent(file, O_RDONLY);
    const ExtentHeader header = readExtentHeader(file);
    std::uint64_t next = 0;
    auto record = readRecord(extent.fd(), header.logId, position, &next);
    if (!record) {
        throw StatusError(kLogDamaged, file.string());
    }
    record->extent = header.number;
    return *std::move(record);
}

} // namespace notes_sim
