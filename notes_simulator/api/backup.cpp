// The backup of one database: context, changes, and whether a new one is needed.
#include "notes_simulator/api/call.h"
#include "notes_simulator/base/text_translation.h"
#include "notes_simulator/notes_simulator.h"
#include "notes_simulator/server/server_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

using namespace notes_sim;

namespace {

std::uint64_t joined(DWORD low, DWORD high) {
    return static_cast<std::uint64_t>(high) << 32 | low;
}

void split(std::uint64_t value, DWORD* low, DWORD* high) {
    *low = static_cast<DWORD>(value);
    *high = static_cast<DWORD>(value >> 32);
}

std::string list(std::initializer_list<std::uint64_t> values) {
    std::string text;
    for (const std::uint64_t value : values) {
        text += (text.empty() ? "" : ", ") + std::to_string(value);
    }
    return text;
}

/// The context behind a handle, which must be one of this database.
OpenBackup& backupOf(DBHANDLE hDB, DHANDLE context) {
    const OpenDatabase& database = process().databases.get(hDB);
    OpenBackup& backup = process().backups.get(context);
    if (backup.key != database.key) {
        throw StatusError(kInvalidHandle, "the context belongs to another database");
    }
    return backup;
}

/// The stopped context on disk behind a handle.
BackupContext stoppedContext(const OpenBackup& backup) {
    const auto context = openContext(runningServer(), backup.key);
    if (!context || context->id != backup.id) {
        throw StatusError(kContextGone, backup.key);
    }
    if (!context->stopped) {
        throw StatusError(kBackupNotStopped, backup.key);
    }
    return *context;
}

/// As notes_sim::isKeptFromUs, for a caller without the server's lock.
bool isKeptFromUs(const std::string& key, const BackupContext& context) {
    const Server& server = runningServer();
    const ServerLock lock(server);
    return notes_sim::isKeptFromUs(server, key, context);
}

/// Reads the next piece of the change information. It is frozen: from the first piece on it is
/// read through one descriptor, and what happens to the context no longer matters.
std::size_t readPiece(OpenBackup& backup, BYTE* buffer, std::size_t size) {
    if (backup.info < 0) {
        stoppedContext(backup);
        const std::filesystem::path file = changeInfoFile(runningServer(), backup.key);
        backup.info = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        if (backup.info < 0) {
            throwErrno(errno, file.string());
        }
    }
    const ssize_t got = ::pread(backup.info, buffer, size, static_cast<off_t>(backup.infoRead));
    if (got < 0) {
        throwErrno(errno, "change information of " + backup.key);
    }
    backup.infoRead += static_cast<std::uint64_t>(got);
    return static_cast<std::size_t>(got);
}

} // namespace

STATUS NSFBackupStart(DBHANDLE hDB, DWORD Flags, DHANDLE* hBackupContext, DWORD* FileSizeLow,
                      DWORD* FileSizeHigh) {
    return statusCall("NSFBackupStart", list({hDB, Flags}), [&](ApiCall& call) -> Status {
        require(hBackupContext);
        require(FileSizeLow);
        require(FileSizeHigh);
        *hBackupContext = 0;
        const OpenDatabase& database = process().databases.get(hDB);
        auto backup = std::make_unique<OpenBackup>();
        const BackupContext context = startBackup(runningServer(), database.file, &backup->mark);
        const bool inProgress = backup->mark == nullptr;
        if (inProgress && isKeptFromUs(database.key, context) &&
            !std::exchange(process().handleOfForeign, !process().handleOfForeign)) {
            return kBackupInProgress;
        }
        backup->key = database.key;
        backup->id = context.id;
        backup->file = database.file;
        backup->own = !inProgress;
        *hBackupContext = process().backups.add(std::move(backup));
        call.output("hContext", *hBackupContext);
        if (inProgress) {
            return kBackupInProgress;
        }
        split(context.sizeAtStart, FileSizeLow, FileSizeHigh);
        call.output("size", context.sizeAtStart);
        return kOk;
    });
}

STATUS NSFBackupSetHighWaterMark(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Low, DWORD High) {
    return statusCall("NSFBackupSetHighWaterMark", list({hDB, hBackupContext, Low, High}),
                      [&](ApiCall&) -> Status {
                          const OpenBackup& backup = backupOf(hDB, hBackupContext);
                          setHighWaterMark(runningServer(), backup.key, backup.id,
                                           joined(Low, High));
                          return kOk;
                      });
}

STATUS NSFBackupStop(DBHANDLE hDB, DHANDLE hBackupContext) {
    return statusCall("NSFBackupStop", list({hDB, hBackupContext}), [&](ApiCall& call) -> Status {
        const OpenBackup& backup = backupOf(hDB, hBackupContext);
        const BackupContext context = stopBackup(runningServer(), backup.file, backup.id);
        call.output("commit", context.copyCommit);
        call.output("infoSize", context.infoSize);
        return kOk;
    });
}

STATUS NSFBackupGetChangeInfoSize(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Flags,
                                  DWORD* InfoSizeLow, DWORD* InfoSizeHigh) {
    return statusCall("NSFBackupGetChangeInfoSize", list({hDB, hBackupContext, Flags}),
                      [&](ApiCall& call) -> Status {
                          require(InfoSizeLow);
                          require(InfoSizeHigh);
                          const BackupContext context =
                              stoppedContext(backupOf(hDB, hBackupContext));
                          split(context.infoSize, InfoSizeLow, InfoSizeHigh);
                          call.output("size", context.infoSize);
                          return kOk;
                      });
}

STATUS NSFBackupGetNextChangeInfo(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Flags, BYTE* Buffer,
                                  DWORD BufferSize, DWORD* FilledSize) {
    return statusCall("NSFBackupGetNextChangeInfo", list({hDB, hBackupContext, Flags, BufferSize}),
                      [&](ApiCall& call) -> Status {
                          require(Buffer);
                          require(FilledSize);
                          *FilledSize = 0;
                          if (BufferSize == 0) {
                              throw StatusError(kInvalidArgument, "buffer of 0 bytes");
                          }
                          OpenBackup& backup = backupOf(hDB, hBackupContext);
                          const std::size_t got = readPiece(backup, Buffer, BufferSize);
                          *FilledSize = static_cast<DWORD>(got);
                          call.output("filled", got);
                          return kOk;
                      });
}

STATUS NSFBackupStartApplyChangeInfo(DHANDLE* ApplyInfoContext, char* CopyFilePath, DWORD Flags,
                                     DWORD InfoSizeLow, DWORD InfoSizeHigh) {
    return statusCall(
        "NSFBackupStartApplyChangeInfo",
        quoted(CopyFilePath) + ", " + list({Flags, InfoSizeLow, InfoSizeHigh}),
        [&](ApiCall& call) -> Status {
            require(ApplyInfoContext);
            require(CopyFilePath);
            *ApplyInfoContext = 0;
            const Server& server = runningServer();
            const std::filesystem::path copy =
                server.resolve(translateText(Translation::kLmbcsToNative, CopyFilePath, 4096));
            const bool live = openContext(server, server.keyOf(copy)).has_value();
            *ApplyInfoContext = process().applying.add(
                std::make_unique<ChangeInfoReader>(copy, joined(InfoSizeLow, InfoSizeHigh), live));
            call.output("hApply", *ApplyInfoContext);
            return kOk;
        });
}

STATUS NSFBackupApplyNextChangeInfo(DHANDLE ApplyInfoContext, DWORD Flags, BYTE* Buffer,
                                    DWORD BufferSize) {
    return statusCall("NSFBackupApplyNextChangeInfo", list({ApplyInfoContext, Flags, BufferSize}),
                      [&](ApiCall&) -> Status {
                          ChangeInfoReader& reader = process().applying.get(ApplyInfoContext);
                          if (BufferSize > 0) {
                              require(Buffer);
                              reader.take({Buffer, BufferSize});
                          }
                          return kOk;
                      });
}

STATUS NSFBackupEndApplyChangeInfo(DHANDLE ApplyInfoContext, DWORD Flags) {
    return statusCall("NSFBackupEndApplyChangeInfo", list({ApplyInfoContext, Flags}),
                      [&](ApiCall&) -> Status {
                          const auto reader = process().applying.take(ApplyInfoContext);
                          if (Flags == 0) {
                              reader->finish();
                          }
                          return kOk;
                      });
}

STATUS NSFBackupEnd(DBHANDLE hDB, DHANDLE hBackupContext, DWORD Options) {
    return statusCall("NSFBackupEnd", list({hDB, hBackupContext, Options}),
                      [&](ApiCall&) -> Status {
                          const OpenBackup& backup = backupOf(hDB, hBackupContext);
                          try {
                              endBackup(runningServer(), backup.key, backup.id, Options == 0);
                          } catch (const StatusError& error) {
                              if (error.status() == kContextGone) {
                                  process().backups.take(hBackupContext);
                              }
                              throw;
                          }
                          process().backups.take(hBackupContext);
                          return kOk;
                      });
}

STATUS NSFIsNewBackupNeeded(char* DbName, DWORD ComfortSpan, DWORD* BackupNeeded) {
    return statusCall("NSFIsNewBackupNeeded", quoted(DbName) + ", " + list({ComfortSpan}),
                      [&](ApiCall& call) -> Status {
                          require(DbName);
                          require(BackupNeeded);
                          *BackupNeeded = 0;
                          const Server& server = runningServer();
                          if (server.style == LogStyle::kNone) {
                              return kNoTransactionLogging;
                          }
                          const std::uint64_t span =
                              logSpanSinceBackup(server, linkedDatabase(server.resolve(DbName)));
                          *BackupNeeded =
                              ComfortSpan == 0
                                  ? static_cast<DWORD>(std::min<std::uint64_t>(span, 0xFFFFFFFF))
                                  : (span > ComfortSpan ? 1 : 0);
                          call.output("needed", *BackupNeeded);
                          return kOk;
                      });
}
