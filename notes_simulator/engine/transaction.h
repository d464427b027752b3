// Changing a database: log first, then the database.
#pragma once

#include "notes_simulator/engine/database.h"
#include "notes_simulator/log/extent.h"
#include "notes_simulator/log/transaction_log.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace notes_sim {

/// A committed transaction.
struct Commit {
    std::uint64_t number = 0; ///< commit number of the database after it
    std::uint64_t record = 0; ///< number of its log record; 0 when the database is not logged
    std::int64_t time = 0;    ///< hundredths of a second since 1970, GMT
    std::vector<NoteChange> changes;
};

/// Called at points of a commit, in this order. A test kills the process in one of them.
struct CommitHooks {
    std::function<void(const Commit&)> beforeLog; ///< all but the record number is known
    std::function<void()> afterLog;               ///< the record is in the log, nowhere else
    std::function<void()> beforeCommit;           ///< pages may be written, nothing is committed
};

/// Whether changes of this database go through the log: it is meant to, the server logs, and it is
/// no template and lies in the data directory.
bool isLogged(const Server& server, const std::filesystem::path& file,
              const DatabaseHeader& header);

/// Opens the log, if the server has one, and finishes what a killed writer left: a record that is
/// in the log and that its database lacks is applied to it. Throws StatusError.
std::unique_ptr<TransactionLog> openLog(const Server& server, const ServerLock& lock);

/// Whether the log has records of this instance of the database that the database lacks, as when
/// an older copy was put in its place and not rolled forward; or the database has records that the
/// log lacks, as when an older log was put back.
bool isOutOfStep(const Server& server, const DatabaseHeader& header, const TransactionLog& log);

/// Gives a logged database that this log does not know yet, or that is out of step with it, a new
/// DBIID: from here on its changes are in this log, apart from those of the earlier instance.
/// Returns the header after it. Belongs under the lock, outside a transaction.
DatabaseHeader adoptIntoLog(const Server& server, Database& database, const TransactionLog& log);

/// Makes the changes in one transaction. A change with note id 0 creates a note; a note without a
/// universal id gets one (an existing note keeps its own); times are set here. Takes the
/// server's lock. Throws StatusError, and nothing is changed then: kNoSuchNote when a note
/// to delete or to mark unread is missing, kNoteExists, kDatabaseOffline.
Commit commitChanges(const Server& server, Database& database, std::vector<NoteChange> changes,
                     const CommitHooks& hooks = {});

/// Applies a log record to the tables of a database, and to its header, which the caller writes.
/// Belongs inside a transaction. Throws StatusError.
void applyRecord(Database& database, DatabaseHeader& header, const LogRecord& record);

/// A backup of the database begins: adopts it into the log, and notes in it that what the log will
/// have beyond lies in the active extent or later ones. Older extents are in earlier backups then.
void noteBackupStart(const Server& server, Database& database, const TransactionLog& log);

/// Remembers how far the log has got with one instance of a database.
void writeInstance(const Server& server, const Id16& dbiid, const Id16& logId,
                   std::uint64_t record);

/// The number of the last record that this log has of an instance; 0 when none is remembered.
std::uint64_t lastRecordOf(const Server& server, const Id16& dbiid, const Id16& logId);

} // namespace notes_sim
