// The format of a log extent: its header and its records. docs/simulator-files.md has it.
#pragma once

#include "notes_simulator/base/byte_codec.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace notes_sim {

/// One record: what one committed transaction changed in one database.
struct LogRecord {
    std::uint64_t number = 0;   ///< 1 for the first record of a log
    std::uint64_t previous = 0; ///< number of the record before it of the same database
    std::uint64_t commit = 0;   ///< commit number of the database after it
    std::int64_t time = 0;      ///< hundredths of a second since 1970, GMT
    Id16 dbiid{};
    std::string database; ///< name as in Server::nameOf
    Bytes payload;        ///< the changes, as encodeChanges made them
    // Where it lies; filled when a record is read or appended.
    std::uint32_t extent = 0;
    std::uint64_t position = 0;
};

/// What lies at the start of an extent.
struct ExtentHeader {
    Id16 logId{};
    std::uint32_t number = 0; ///< 1 for the first of a log; Server::logNumber has what it is called
    std::uint64_t firstRecord = 0; ///< number of the first record that the extent can hold
    std::int64_t created = 0;
    bool free = false; ///< archived, and the file is to be used again
};

inline constexpr std::uint64_t kExtentHeaderSize = 64;

/// The bytes that the payload of one record may have in extents of this size.
std::uint64_t largestPayload(std::uint64_t extentSize);

/// "S0000001.TXN" for 1.
std::string extentFileName(std::uint32_t number);

/// The other way round; none for another name.
std::optional<std::uint32_t> extentNumber(const std::string& name);

/// Reads an extent file. Throws StatusError(kLogDamaged) when it is none.
ExtentHeader readExtentHeader(const std::filesystem::path& file);

/// The same; nothing for a file that is none. Throws StatusError when it cannot be read.
std::optional<ExtentHeader> extentHeaderOf(const std::filesystem::path& file);

/// The header's bytes, and back; nothing where they hold none.
Bytes encodeExtentHeader(const ExtentHeader& header);
std::optional<ExtentHeader> decodeExtentHeader(std::span<const std::uint8_t> bytes);

/// Marks an archived extent's file as one to be used again. Throws StatusError.
void freeExtent(const std::filesystem::path& file);

/// Calls visit for each record of an extent file, in order, until it returns false. A record that
/// was not written to its end closes the extent. Throws StatusError(kLogDamaged).
void readExtent(const std::filesystem::path& file,
                const std::function<bool(const LogRecord&)>& visit);

/// Reads the record at a position of an extent file. Throws StatusError(kLogDamaged) when no whole
/// one lies there.
LogRecord readRecordAt(const std::filesystem::path& file, std::uint64_t position);

/// The bytes of a record of this log.
Bytes encodeRecord(const Id16& logId, const LogRecord& record);

/// Reads the record at a position of an open extent, and where the next one begins; none where no
/// whole record lies.
std::optional<LogRecord> readRecord(int fd, const Id16& logId, std::uint64_t position,
                                    std::uint64_t* next);

} // namespace notes_sim
