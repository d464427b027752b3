// Backups of one database and what the server remembers of them. All of it lies in the state
// folder: a context outlives the process that opened it, as one that was killed shows.
#pragma once

#include "notes_simulator/engine/database.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace notes_sim {

/// A backup context as it lies on disk.
struct BackupContext {
    std::string id;       ///< names this context among all contexts of the server
    std::string database; ///< name as in Server::nameOf
    std::int64_t process = 0;
    std::int64_t started = 0; ///< hundredths of a second since 1970
    std::uint64_t sizeAtStart = 0;
    std::uint64_t highWaterMark = 0; ///< how far the reader said it has got, in bytes
    bool asOfStart = false;          ///< mood "before": the copy becomes the database at the start
    bool stopped = false;
    // What the copy is of: set at the stop, or at the start when it is as of that.
    std::uint64_t copyCommit = 0;
    std::uint64_t copyLogBytes = 0;
    Id16 copyDbiid{};
    Id16 copyLogId{};
    std::uint64_t infoSize = 0; ///< bytes of change information, once stopped
};

/// The last stop and the last completed backup of a database.
struct BackupRecord {
    std::string database;
    std::optional<std::uint64_t> stopCommit; ///< commit number of the last copy that was stopped
    bool backedUp = false;                   ///< whether a backup has ended well
    std::int64_t time = 0;                   ///< of its end
    std::uint64_t commit = 0;                ///< commit number that it holds
    std::uint64_t logBytes = 0;              ///< TransactionLog::totalBytes at its stop
    Id16 dbiid{};
    Id16 logId{};
};

/// The open context of a database, if there is one.
std::optional<BackupContext> openContext(const Server& server, const std::string& key);

/// Opens a context under a short exclusive lock on the database; *mark shows for as long as it
/// lives that this process runs the backup. When a context is open already the result is that one
/// and *mark is empty. Throws StatusError: kBackupInProgress while the database is compacted.
BackupContext startBackup(const Server& server, const std::filesystem::path& file,
                          std::unique_ptr<ActivityMark>* mark);

/// Whether the server keeps a context from this process: another one, which lives, runs the backup,
/// and the server is in the mood "foreign". REQUIRES: the caller holds the server's lock.
bool isKeptFromUs(const Server& server, const std::string& key, const BackupContext& context);

/// Remembers how far the reader has got.
void setHighWaterMark(const Server& server, const std::string& key, const std::string& id,
                      std::uint64_t mark);

/// Freezes the changed pages and the size of the database as they are now, or as they were at the
/// start of a context that keeps those. A context that has been
/// stopped already stays as it is. Throws StatusError(kContextGone) when another context, or none,
/// is open.
BackupContext stopBackup(const Server& server, const std::filesystem::path& file,
                         const std::string& id);

/// The file that holds the change information of a stopped context.
std::filesystem::path changeInfoFile(const Server& server, const std::string& key);

/// Ends a context. With complete the database counts as backed up, under the DBIID and the log
/// position of the copy; throws StatusError(kBackupNotStopped) before the stop, and kForeignBackup
/// for a context that is kept from this process.
void endBackup(const Server& server, const std::string& key, const std::string& id, bool complete);

/// Ends the context that is open on a database, if there is one, as one that was given up.
void dropContext(const Server& server, const std::string& key, const ServerLock& lock);

/// What the server remembers of a database's backups.
BackupRecord readBackupRecord(const Server& server, const std::string& key);

/// Another tool has backed the database up as it is now. Throws StatusError.
void markBackedUp(const Server& server, const std::filesystem::path& file);

/// The bytes of log written since the last backup of this instance of the database. Throws
/// StatusError(kNotBackedUp) when none has ended under its present DBIID in the present log.
std::uint64_t logSpanSinceBackup(const Server& server, const std::filesystem::path& file);

/// The session for archiving logs that is open on the server, described for people.
std::optional<std::string> archivingSession(const Server& server);
/// Whether the open session is one that this process began.
bool ownsArchivingSession(const Server& server);
/// Throws StatusError(kArchivingInProgress) while a session is open.
void beginArchiving(const Server& server);
/// Ends the session whoever began it; none is no error.
void endArchiving(const Server& server);

} // namespace notes_sim
