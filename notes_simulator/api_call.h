// What every function of the C API shares: the lock, the faults, the journal, the process's state,
// and the way from exceptions back to statuses.
#pragma once

#include "notes_simulator/backup_context.h"
#include "notes_simulator/change_info.h"
#include "notes_simulator/faults.h"
#include "notes_simulator/handle_table.h"
#include "notes_simulator/id_table.h"
#include "notes_simulator/memory_objects.h"
#include "notes_simulator/server.h"
#include "notes_simulator/use_mark.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

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

/// The server of the running runtime. Throws StatusError(kNotInitialised).
const Server& runningServer();
/// The last server of this process, running or not. Throws StatusError(kNotInitialised).
const Server& knownServer();

/// A connection to an open database, to live for one call.
Database connect(Handle handle);

/// The file that a path in LMBCS names, or the one that a database link of this name leads to.
std::filesystem::path databaseFile(const Server& server, const char* path);

/// Text in quotes for the journal; "NULL" for none.
std::string quoted(const char* text);

/// Throws StatusError(kInvalidArgument) when a required pointer is NULL.
inline void require(const void* pointer) {
    if (pointer == nullptr) {
        throw StatusError(kInvalidArgument, "");
    }
}

/// One call: takes the process's lock, counts the call, and writes its line when it ends.
class ApiCall {
  public:
    ApiCall(const char* function, std::string arguments);
    ~ApiCall();
    ApiCall(const ApiCall&) = delete;
    ApiCall& operator=(const ApiCall&) = delete;

    /// The status of the fault that this call meets, if it meets one.
    const std::optional<Status>& fault() const { return m_fault; }
    /// The status as the caller receives it: in the mood "flags" one of a failure carries flags.
    Status answer(Status status);
    void result(std::string text) { m_result = std::move(text); }
    /// Adds an output to the journal line, as " name=value".
    void output(const char* name, std::uint64_t value);
    void output(const char* name, const char* text);

  private:
    std::unique_lock<std::recursive_mutex> m_lock;
    const char* m_function;
    std::string m_arguments;
    std::string m_result;
    std::string m_outputs;
    std::optional<Status> m_fault;
};

/// The status that stands for the exception being handled.
Status currentExceptionStatus() noexcept;

/// Runs the body of a function that returns a STATUS. The body throws StatusError to fail, or
/// returns a status.
template <class Body>
Status statusCall(const char* function, std::string arguments, Body&& body) noexcept {
    try {
        ApiCall call(function, std::move(arguments));
        Status status = kOk;
        if (call.fault()) {
            status = *call.fault();
        } else {
            try {
                status = body(call);
            } catch (const std::exception& error) {
                status = currentExceptionStatus();
                call.output("why", error.what());
            }
        }
        status = call.answer(status);
        call.result(std::to_string(status));
        return status;
    } catch (...) {
        return currentExceptionStatus();
    }
}

/// Runs the body of a function with another result; failure is what it returns when it fails.
template <class Result, class Body>
Result valueCall(const char* function, std::string arguments, Result failure,
                 Body&& body) noexcept {
    try {
        ApiCall call(function, std::move(arguments));
        Result result = failure;
        if (!call.fault()) {
            try {
                result = body(call);
            } catch (const std::exception& error) {
                result = failure;
                call.output("why", error.what());
            }
        }
        if constexpr (std::is_pointer_v<Result>) {
            call.result(result == nullptr ? "NULL" : "address");
        } else {
            call.result(std::to_string(result));
        }
        return result;
    } catch (...) {
        return failure;
    }
}

} // namespace notes_sim
