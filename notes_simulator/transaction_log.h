// The server's transaction log: extents of a fixed size and the log control file.
// docs/simulator-files.md has the formats.
#pragma once

#include "notes_simulator/byte_codec.h"
#include "notes_simulator/server.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

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

/// "S0000001.TXN" for 1.
std::string extentFileName(std::uint32_t number);

/// Reads an extent file. Throws StatusError(kLogDamaged) when it is none.
ExtentHeader readExtentHeader(const std::filesystem::path& file);

/// The same; nothing for a file that is none. Throws StatusError when it cannot be read.
std::optional<ExtentHeader> extentHeaderOf(const std::filesystem::path& file);

/// Calls visit for each record of an extent file, in order, until it returns false. A record that
/// was not written to its end closes the extent. Throws StatusError(kLogDamaged).
void readExtent(const std::filesystem::path& file,
                const std::function<bool(const LogRecord&)>& visit);

/// Reads the record at a position of an extent file. Throws StatusError(kLogDamaged) when no whole
/// one lies there.
LogRecord readRecordAt(const std::filesystem::path& file, std::uint64_t position);

/// The log of one server. All of it needs the ServerLock, which must outlive the object; nothing
/// is kept between two locks, since other processes write the same log.
class TransactionLog {
  public:
    /// Opens the log of a server whose style is not kNone, and creates it where there is none. A
    /// lost control file is made again from the extents. Throws StatusError.
    TransactionLog(const Server& server, const ServerLock& lock);
    ~TransactionLog();
    TransactionLog(const TransactionLog&) = delete;
    TransactionLog& operator=(const TransactionLog&) = delete;

    /// The one record that a writer appended and may not have applied, if there is one. The
    /// caller applies it where it is missing and then calls confirm().
    const std::optional<LogRecord>& inFlight() const { return m_inFlight; }

    /// Appends a record; number, extent and position are filled in. Rolls over to a new extent
    /// when the active one has no room. Throws StatusError(kRecordTooLarge).
    void append(LogRecord& record);
    /// The appended record is in its database.
    void confirm();
    /// Takes the appended record back, after its database refused it.
    void takeBack();

    const Id16& logId() const { return m_control.logId; }
    std::uint32_t firstExtent() const { return m_control.firstExtent; }
    std::uint32_t activeExtent() const { return m_control.activeExtent; }
    std::uint64_t nextRecord() const { return m_control.nextRecord; }
    /// Bytes of log written since the log began, whatever happened to the extents.
    std::uint64_t totalBytes() const { return m_control.totalBytes; }
    std::filesystem::path extentPath(std::uint32_t number) const;
    /// Whether the state folder has seen this log from its first record on: an instance of which it
    /// knows no record has none then.
    bool knowsEveryInstance() const;

    /// The full extents that wait to be archived, in order; none unless the style is archive.
    std::vector<std::uint32_t> readyExtents() const;
    /// An extent has been archived: the server removes it, or uses its file again. Throws
    /// StatusError(kNotReadyToArchive) when it is not one of readyExtents() of this log.
    void archived(const Id16& logId, std::uint32_t number);

    /// The bytes that the payload of one record may have.
    static std::uint64_t largestPayload(const Server& server);

  private:
    struct Control {
        Id16 logId{};
        std::uint32_t firstExtent = 1;
        std::uint32_t activeExtent = 1;
        std::uint64_t position = 0; ///< end of the last confirmed record in the active extent
        std::uint64_t nextRecord = 1;
        std::uint64_t totalBytes = 0;
        std::vector<std::uint32_t> archived; ///< extents after firstExtent archived out of order
    };

    bool readControl();
    void writeControl();
    void rebuildControl();
    std::filesystem::path birthFile() const;
    void findRecordsAfterControl();
    void openActive();
    void createExtent(const std::filesystem::path& path, std::uint32_t number,
                      std::uint64_t firstRecord);
    void beginLog();
    std::vector<std::pair<std::uint32_t, std::filesystem::path>> presentExtents() const;
    void rollOver();

    const Server& m_server;
    Control m_control;
    std::optional<LogRecord> m_inFlight;
    int m_active = -1;              ///< descriptor of the active extent
    std::uint32_t m_activeOpen = 0; ///< the extent that m_active is
    std::uint64_t m_appendedLength = 0;
};

} // namespace notes_sim
