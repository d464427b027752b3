// The server's transaction log: extents of a fixed size, appended to under the server's lock.
#pragma once

#include "notes_simulator/log/control_file.h"
#include "notes_simulator/log/extent.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace notes_sim {

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

  private:
    void writeControl() const { m_control.write(m_server); }
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
    ControlFile m_control;
    std::optional<LogRecord> m_inFlight;
    int m_active = -1;              ///< descriptor of the active extent
    std::uint32_t m_activeOpen = 0; ///< the extent that m_active is
    std::uint64_t m_appendedLength = 0;
};

} // namespace notes_sim
