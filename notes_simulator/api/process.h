// The state of a process that has loaded the library: what is open behind its handles.
#pragma once

#include "notes_simulator/api/handle_table.h"
#include "notes_simulator/api/id_table.h"
#include "notes_simulator/api/memory_objects.h"
#include "notes_simulator/engine/backup_context.h"
#include "notes_simulator/engine/change_info.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace notes_sim {

/// A database behind a handle. Connections are opened call by call, so that no lock of SQLite
/// outlives a call and closing another descriptor of the file harms nothing.
struct OpenDatabase {
    /// Throws StatusError(kDatabaseOffline).
    OpenDatabase(const Server& server, const std::filesystem::path& path, const ServerLock& lock)
        : file(path), key(server.keyOf(path)), mark(server, path, lock) {}
    std::filesystem::path file; ///< absolute
    std::string key;
    UseMark mark;
};

/// A backup context behind a handle.
struct OpenBackup {
    OpenBackup() = default;
    ~OpenBackup();
    OpenBackup(const OpenBackup&) = delete;
    OpenBackup& operator=(const OpenBackup&) = delete;
    std::string key;
    std::string id;
    std::filesystem::path file;
    int info = -1;                      ///< the change information, once it is being read
    std::uint64_t infoRead = 0;         ///< bytes of it given out
    bool own = false;                   ///< this process opened it
    std::unique_ptr<ActivityMark> mark; ///< of one that it opened
};

/// The state of this process. Guarded by ApiCall.
struct Process {
    std::recursive_mutex mutex;
    std::optional<Server> server;     ///< set while the runtime is up
    std::optional<Server> lastServer; ///< stays after NotesTerm, for the log functions
    HandleTable<OpenDatabase> databases;
    HandleTable<OpenBackup> backups;
    HandleTable<ChangeInfoReader> applying;
    HandleTable<IdTable> tables;
    HandleTable<MemoryObject> memory;
    std::uint32_t archiveCursor = 0; ///< extent that was given out last
    bool handleOfForeign =
        false;               ///< the next start that meets a backup kept from us gives its handle
    bool terminated = false; ///< NotesTerm was the last that the runtime heard
    bool archivingDenied = false; ///< since its start it was asked to archive, and cannot
    std::size_t failures = 0;     ///< calls that have failed
};

Process& process();

/// Ends the contexts that this process opened and forgets every handle.
void closeEverything(Process& self);

/// The server of the running runtime. Throws StatusError(kNotInitialised).
const Server& runningServer();

/// The last server of this process, running or not. Throws StatusError(kNotInitialised).
const Server& knownServer();

/// A connection to an open database, to live for one call.
Database connect(Handle handle);

/// The file that a path in LMBCS names, or the one that a database link of this name leads to.
std::filesystem::path databaseFile(const Server& server, const char* path);

} // namespace notes_sim
