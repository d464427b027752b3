#include "notes_simulator/engine/recovery.h"

#include "notes_simulator/engine/database.h"
#include "notes_simulator/engine/offline.h"
#include "notes_simulator/engine/recovery_mark.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/log/extent.h"
#include "notes_simulator/log/extent_files.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"

#include <algorithm>
#include <map>
#include <set>

namespace fs = std::filesystem;

namespace notes_sim {

namespace {

/// Where a record lies that is to be applied.
struct RecordPlace {
    std::uint32_t extent = 0;
    std::uint64_t position = 0;
    std::uint64_t number = 0;
};

/// One database of a recovery.
struct Target {
    fs::path file;
    DatabaseHeader header;        ///< as it was found
    bool known = false;           ///< whether this log has its changes
    bool finished = false;        ///< no further record of it is wanted
    std::uint64_t lastInLog = 0;  ///< number of its last record, when finished by it; else 0
    std::uint64_t lastRecord = 0; ///< number of the last record wanted so far
    std::uint64_t commit = 0;     ///< commit number after that one
    std::uint64_t lastSeen = 0;   ///< number of the last record seen, wanted or not
    std::vector<RecordPlace> records;
};

/// The end of the log when the recovery began. What is written later does not count.
struct LogEnd {
    Id16 logId{};
    std::uint32_t activeExtent = 0;
    std::uint64_t nextRecord = 0;
    bool knowsEveryInstance = false;
};

bool sameState(const DatabaseHeader& a, const DatabaseHeader& b) {
    return a.dbiid == b.dbiid && a.logId == b.logId && a.lastRecord == b.lastRecord &&
           a.commit == b.commit;
}

class Recovery {
  public:
    Recovery(const Server& server, const RecoveryRequest& request)
        : m_server(server), m_request(request) {}

    std::vector<std::size_t> run() {
        inspect();
        scan();
        for (std::size_t i = 0; i < m_targets.size(); ++i) {
            if (m_targets[i].known) {
                forDatabase(i, [&] { replay(m_targets[i]); });
            }
        }
        return m_unknown;
    }

  private:
    /// Failures of the body are those of this database.
    template <class Body>
    static void forDatabase(std::size_t index, Body&& body) {
        try {
            body();
        } catch (const RecoveryError&) {
            throw; // has its database already
        } catch (const StatusError& error) {
            throw RecoveryError(error, index);
        } catch (const fs::filesystem_error& error) {
            throw RecoveryError(StatusError(kIoError, error.what()), index);
        }
    }

    void inspect();
    Target inspectDatabase(const fs::path& file, const ServerLock& lock);
    void scan();
    ExtentHeader provideExtent(std::uint32_t extent);
    void scanExtent(std::uint32_t extent);
    void meet(std::size_t index, const LogRecord& record);
    bool isLater(const LogRecord& record) const {
        return m_request.until && record.time > *m_request.until;
    }
    std::optional<std::size_t> firstThatNeeds(std::uint32_t extent) const;
    void replay(const Target& target);
    void rememberRecords(const Target& target) const;

    const Server& m_server;
    const RecoveryRequest& m_request;
    LogEnd m_end;
    std::vector<Target> m_targets;
    std::vector<std::size_t> m_unknown;
    std::map<std::uint32_t, fs::path> m_files; ///< of the extents that were provided
    std::multimap<Id16, std::size_t> m_byInstance;
    std::uint64_t m_expected = 0; ///< number of the first record of the next extent; 0: any
    bool m_sawEnd = false;        ///< every record up to the end of the log has been seen
};

/// Looks at the databases, and at the end of the log.
void Recovery::inspect() {
    const ServerLock lock(m_server);
    const auto log = openLog(m_server, lock);
    if (!log) {
        throw StatusError(kNoTransactionLogging, "");
    }
    m_end = {log->logId(), log->activeExtent(), log->nextRecord(), log->knowsEveryInstance()};
    std::set<std::string> names;
    for (std::size_t i = 0; i < m_request.files.size(); ++i) {
        forDatabase(i, [&] {
            if (!names.insert(m_server.nameOf(m_request.files[i])).second) {
                throw StatusError(kInvalidArgument,
                                  m_request.files[i].string() + " is named twice");
            }
            m_targets.push_back(inspectDatabase(m_request.files[i], lock));
        });
        if (m_targets[i].known) {
            m_byInstance.emplace(m_targets[i].header.dbiid, i);
        } else {
            m_unknown.push_back(i);
        }
    }
}

Target Recovery::inspectDatabase(const fs::path& file, const ServerLock& lock) {
    if (const Status status = probeDatabase(file); status != kOk) {
        throw StatusError(status, file.string());
    }
    if (UseMark::inUse(m_server, file, lock)) {
        throw StatusError(kDatabaseInUse, file.string());
    }
    if (isOffline(m_server, file)) {
        removeLeftovers(m_server, file, lock);
    } else {
        settleInterruptedRecovery(m_server, file, lock);
    }
    Target target;
    target.file = file;
    target.header = Database(file, Connection::Mode::kReadWrite).header();
    const DatabaseHeader& header = target.header;
    target.known = header.logged && header.logId == m_end.logId;
    if (target.known && m_request.until && header.commitTime > *m_request.until) {
        throw StatusError(kLaterThanRecovery, file.string());
    }
    target.lastRecord = header.lastRecord;
    target.lastSeen = header.lastRecord;
    target.commit = header.commit;
    target.finished = !target.known;
    if (target.known && m_end.knowsEveryInstance) {
        target.lastInLog = lastRecordOf(m_server, header.dbiid, header.logId);
        target.finished = target.lastInLog <= header.lastRecord;
    }
    return target;
}

/// Reads the extents, from the first that a database needs to the last, and finds the records to
/// apply. Changes nothing.
void Recovery::scan() {
    std::uint32_t extent = m_end.activeExtent;
    for (const Target& target : m_targets) {
        if (!target.finished) {
            extent = std::min(extent, std::max(target.header.lastExtent, 1U));
        }
    }
    for (; extent <= m_end.activeExtent; ++extent) {
        if (!firstThatNeeds(m_end.activeExtent)) {
            return;
        }
        if (firstThatNeeds(extent)) {
            scanExtent(extent);
        } else {
            m_expected = 0; // all that began with earlier extents are finished
        }
    }
    if (m_expected < m_end.nextRecord) {
        if (const auto index = firstThatNeeds(m_end.activeExtent)) {
            throw RecoveryError(StatusError(kLogDamaged, extentFileName(m_end.activeExtent)),
                                *index);
        }
    }
    m_sawEnd = true;
}

/// The first database whose records may lie in this extent; none when all are finished.
std::optional<std::size_t> Recovery::firstThatNeeds(std::uint32_t extent) const {
    for (std::size_t i = 0; i < m_targets.size(); ++i) {
        if (!m_targets[i].finished && m_targets[i].header.lastExtent <= extent) {
            return i;
        }
    }
    return std::nullopt;
}

/// Has the extent provided, and looks whether it is the right one.
ExtentHeader Recovery::provideExtent(std::uint32_t extent) {
    const fs::path path = extentFile(m_server, m_end.logId, extent);
    std::error_code error;
    if (!m_request.provide(m_end.logId, m_server.logNumber(extent), path) ||
        !fs::exists(path, error)) {
        throw StatusError(kLogExtentMissing, path.string());
    }
    const ExtentHeader header = readExtentHeader(path);
    m_files[extent] = path;
    if (header.logId != m_end.logId || header.number != extent) {
        throw StatusError(kWrongLogExtent, path.string());
    }
    return header;
}

void Recovery::scanExtent(std::uint32_t extent) {
    const std::size_t first = firstThatNeeds(extent).value_or(0);
    ExtentHeader header;
    forDatabase(first, [&] { header = provideExtent(extent); });
    if (m_expected != 0 && header.firstRecord != m_expected) {
        // The extent before ends too soon. Databases that begin with this one do not mind.
        if (const auto index = firstThatNeeds(extent - 1)) {
            throw RecoveryError(StatusError(kLogDamaged, extentFileName(extent - 1)), *index);
        }
    }
    m_expected = header.firstRecord;
    bool later = false;
    const auto visit = [&](const LogRecord& record) {
        if (record.number >= m_end.nextRecord) {
            return false; // not confirmed when the recovery began
        }
        m_expected = record.number + 1;
        later = isLater(record);
        const auto [begin, end] = m_byInstance.equal_range(record.dbiid);
        for (auto each = begin; each != end; ++each) {
            forDatabase(each->second, [&] { meet(each->second, record); });
        }
        return true;
    };
    forDatabase(first, [&] { readExtent(m_files.at(extent), visit); });
    if (later) {
        // The log has passed the recovery time: later extents are not needed.
        for (Target& target : m_targets) {
            target.finished = true;
        }
    }
}

/// Takes note of a record of a database.
void Recovery::meet(std::size_t index, const LogRecord& record) {
    Target& target = m_targets[index];
    if (record.number <= target.header.lastRecord) {
        return;
    }
    target.lastSeen = record.number;
    if (target.finished) {
        return;
    }
    if (isLater(record)) {
        target.finished = true;
        return;
    }
    if (record.previous != target.lastRecord || record.commit != target.commit + 1) {
        throw StatusError(kLogGap, target.file.string());
    }
    decodeChanges(record.payload); // while nothing is changed yet
    target.records.push_back({record.extent, record.position, record.number});
    target.lastRecord = record.number;
    target.commit = record.commit;
    target.finished = target.lastInLog != 0 && record.number >= target.lastInLog;
}

/// Writes the records into a database, all or none.
void Recovery::replay(const Target& target) {
    const ServerLock lock(m_server);
    if (UseMark::inUse(m_server, target.file, lock)) {
        throw StatusError(kDatabaseInUse, target.file.string());
    }
    rememberRecords(target);
    if (target.records.empty() && !m_request.newInstance) {
        return;
    }
    const RecoveryMark mark(m_server, target.file, lock);
    Database database(target.file, Connection::Mode::kReadWrite);
    if (!sameState(database.header(), target.header)) {
        // Somebody had it open while the extents were read.
        throw StatusError(kDatabaseInUse, target.file.string());
    }
    SqlTransaction transaction(database.connection(), "BEGIN IMMEDIATE");
    DatabaseHeader header = target.header;
    for (const RecordPlace& place : target.records) {
        const LogRecord record = readRecordAt(m_files.at(place.extent), place.position);
        if (record.number != place.number || record.dbiid != target.header.dbiid) {
            throw StatusError(kWrongLogExtent, extentFileName(place.extent));
        }
        applyRecord(database, header, record);
    }
    if (m_request.newInstance) {
        header.dbiid = randomId16();
        header.lastRecord = 0;
        header.lastExtent = m_end.activeExtent;
    }
    database.writeHeader(header);
    transaction.commit();
}

/// Makes sure that a database which now lacks records of its instance is found to be behind. A
/// state folder that has not seen the log from its beginning may not know of them.
void Recovery::rememberRecords(const Target& target) const {
    if (m_end.knowsEveryInstance) {
        return;
    }
    const DatabaseHeader& header = target.header;
    const std::uint64_t last = m_sawEnd ? target.lastSeen : m_end.nextRecord - 1;
    if (last > lastRecordOf(m_server, header.dbiid, header.logId)) {
        writeInstance(m_server, header.dbiid, header.logId, last);
    }
}

} // namespace

std::vector<std::size_t> recoverDatabases(const Server& server, const RecoveryRequest& request) {
    return Recovery(server, request).run();
}

} // namespace notes_sim
