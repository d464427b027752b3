#include "notes_simulator/base/status.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace notes_sim {

namespace {

struct StatusEntry {
    Status status;
    const char* text;
};

constexpr std::array kTexts = {
    StatusEntry{kOk, "No error"},
    StatusEntry{kNoSuchFile, "File does not exist"},
    StatusEntry{kAccessDenied, "Access to data denied"},
    StatusEntry{kInvalidDirectory, "Invalid directory name or device not ready"},
    StatusEntry{kNotADatabase, "File is not a database"},
    StatusEntry{kNoModifiedNotes, "No document has been modified since the specified time"},
    StatusEntry{kBackupInProgress, "A backup of this database is already in progress"},
    StatusEntry{kArchivingInProgress, "Archiving of transaction logs is already in progress"},
    StatusEntry{kNoLogToArchive, "No transaction log is ready to be archived"},
    StatusEntry{kDatabaseInUse, "The database is in use"},
    StatusEntry{kNotBackedUp,
                "The database has not been backed up on this server or instance of the log"},
    StatusEntry{kNoTransactionLogging, "Transaction logging is not in effect"},
    StatusEntry{kInvalidHandle, "Handle is not valid"},
    StatusEntry{kInvalidArgument, "Argument is not valid"},
    StatusEntry{kOutOfMemory, "Not enough memory"},
    StatusEntry{kNotInitialised, "The runtime has not been initialised"},
    StatusEntry{kBadTimeText, "Text is not a valid date and time"},
    StatusEntry{kDatabaseDamaged, "The database is damaged"},
    StatusEntry{kContextGone, "The backup context is no longer open"},
    StatusEntry{kBackupNotStopped, "The backup of the database has not been stopped"},
    StatusEntry{kBadChangeInfo, "The change information is damaged"},
    StatusEntry{kChangeInfoIncomplete, "The change information did not arrive in full"},
    StatusEntry{kLogDamaged, "The transaction log is damaged"},
    StatusEntry{kNotReadyToArchive, "The transaction log extent is not ready to be archived"},
    StatusEntry{kIoError, "Input or output error"},
    StatusEntry{kBadFaultText, "NOTES_SIM_FAULTS is not a valid list of faults"},
    StatusEntry{kNoSuchNote, "The note does not exist"},
    StatusEntry{kRefusedDuringBackup, "Refused while a backup of the database is in progress"},
    StatusEntry{kRecordTooLarge, "The change is larger than a transaction log extent"},
    StatusEntry{kDatabaseOffline, "The database has been taken offline"},
    StatusEntry{kNoteExists, "A note with this note id or universal id exists already"},
    StatusEntry{kWrongDatabaseId, "The database id is not that of the database"},
    StatusEntry{kNoUnreadTable, "The user has no unread marks in this database"},
    StatusEntry{kLogExtentMissing,
                "A transaction log extent that the recovery needs is not in the log directory"},
    StatusEntry{kWrongLogExtent,
                "A transaction log extent that the recovery needs is of another log or number"},
    StatusEntry{kLogGap, "The transaction log does not continue where the database ends"},
    StatusEntry{kLaterThanRecovery, "The database is later than the time to recover it to"},
    StatusEntry{kNoArchivingSession, "No archiving of transaction logs has been begun"},
    StatusEntry{kForeignBackup, "The backup of the database belongs to another process"},
};

} // namespace

std::string statusText(Status status) {
    for (const StatusEntry& entry : kTexts) {
        if (entry.status == status) {
            return entry.text;
        }
    }
    return "Status " + std::to_string(status) + " has no text on this server";
}

StatusError::StatusError(Status status, const std::string& detail)
    : std::runtime_error(detail.empty() ? statusText(status) : detail + ": " + statusText(status)),
      m_status(status) {}

void throwErrno(int error, const std::string& detail) {
    Status status = kIoError;
    if (error == ENOENT || error == ENOTDIR) {
        status = kNoSuchFile;
    } else if (error == EACCES || error == EPERM || error == EROFS) {
        status = kAccessDenied;
    }
    throw StatusError(status, detail + " (" + std::strerror(error) + ")");
}

} // namespace notes_sim
