// The statuses of the simulated server, and the exception that carries one through the engine.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace notes_sim {

using Status = std::uint16_t;

// Statuses that callers of the C API tell apart.
constexpr Status kOk = 0;
constexpr Status kNoSuchFile = 259;
constexpr Status kAccessDenied = 272;
constexpr Status kInvalidDirectory = 499;
constexpr Status kNotADatabase = 513;
constexpr Status kNoModifiedNotes = 572;
constexpr Status kBackupInProgress = 3748;
constexpr Status kArchivingInProgress = 3758;
constexpr Status kNoLogToArchive = 5086;
constexpr Status kDatabaseInUse = 5098;
constexpr Status kNotBackedUp = 5114;
constexpr Status kNoTransactionLogging = 5119;

// The simulator's own statuses lie in one block at the end of the 14-bit range.
constexpr Status kInvalidHandle = 0x3F01;
constexpr Status kInvalidArgument = 0x3F02;
constexpr Status kOutOfMemory = 0x3F03;
constexpr Status kNotInitialised = 0x3F04;
constexpr Status kBadTimeText = 0x3F05;
constexpr Status kDatabaseDamaged = 0x3F06;
constexpr Status kContextGone = 0x3F07;
constexpr Status kBackupNotStopped = 0x3F08;
constexpr Status kBadChangeInfo = 0x3F09;
constexpr Status kChangeInfoIncomplete = 0x3F0A;
constexpr Status kLogDamaged = 0x3F0B;
constexpr Status kNotReadyToArchive = 0x3F0C;
constexpr Status kIoError = 0x3F0D;
constexpr Status kBadFaultText = 0x3F0E;
constexpr Status kNoSuchNote = 0x3F0F;
constexpr Status kRefusedDuringBackup = 0x3F10;
constexpr Status kRecordTooLarge = 0x3F11;
constexpr Status kDatabaseOffline = 0x3F12;
constexpr Status kNoteExists = 0x3F13;
constexpr Status kWrongDatabaseId = 0x3F14;
constexpr Status kNoUnreadTable = 0x3F15;
constexpr Status kLogExtentMissing = 0x3F16;
constexpr Status kWrongLogExtent = 0x3F17;
constexpr Status kLogGap = 0x3F18;
constexpr Status kLaterThanRecovery = 0x3F19;
constexpr Status kNoArchivingSession = 0x3F20;
constexpr Status kForeignBackup = 0x3F21;

/// The text of a status; a generic text that names the number when there is none.
std::string statusText(Status status);

/// An operation of the engine failed with a status. what() says which and why.
class StatusError : public std::runtime_error {
  public:
    /// The message is "<detail>: <text of status>", or the text alone when detail is empty.
    StatusError(Status status, const std::string& detail);

    Status status() const { return m_status; }

  private:
    Status m_status;
};

/// Throws a StatusError for an errno value: ENOENT, EACCES and EPERM have statuses of their own.
[[noreturn]] void throwErrno(int error, const std::string& detail);

} // namespace notes_sim
