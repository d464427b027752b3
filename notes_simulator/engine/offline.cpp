#include "notes_simulator/engine/offline.h"

#include "notes_simulator/base/files.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/engine/backup_context.h"
#include "notes_simulator/engine/database.h"
#include "notes_simulator/engine/recovery_mark.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/server/server_lock.h"
#include "notes_simulator/server/use_mark.h"
#include "notes_simulator/storage/side_files.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <thread>

namespace fs = std::filesystem;
using nlohmann::json;

namespace notes_sim {

namespace {

constexpr std::chrono::milliseconds kPollInterval{20};

void requireProbed(const fs::path& file) {
    if (const Status status = probeDatabase(file); status != kOk) {
        throw StatusError(status, file.string());
    }
}

/// Finishes or rolls back what a killed writer left in the database.
void settle(const Server& server, const fs::path& file, const ServerLock& lock) {
    openLog(server, lock);
    try {
        settleInterruptedRecovery(server, file, lock);
        Database(file, Connection::Mode::kReadWrite).header();
    } catch (const StatusError& error) {
        // A damaged database is what somebody wants to replace.
        if (error.status() != kDatabaseDamaged && error.status() != kNotADatabase) {
            throw;
        }
    }
}

/// Whether the database is offline now; false when a process has it open.
bool tryTakeOffline(const Server& server, const fs::path& file) {
    const ServerLock lock(server);
    if (isOffline(server, file)) {
        return true;
    }
    requireProbed(file);
    if (UseMark::inUse(server, file, lock)) {
        return false;
    }
    settle(server, file, lock);
    const fs::path mark = offlineFile(server, file);
    fs::create_directories(mark.parent_path());
    // File names are bytes, not text: what is no UTF-8 must not stop the mark.
    replaceFile(mark, json({{"database", server.nameOf(file)},
                            {"process", ::getpid()},
                            {"time", nowInHundredths()}})
                              .dump(2, ' ', false, json::error_handler_t::replace) +
                          "\n");
    removeLeftovers(server, file, lock);
    return true;
}

} // namespace

void removeLeftovers(const Server& server, const fs::path& file, const ServerLock& lock) {
    settleInterruptedRecovery(server, file, lock);
    dropContext(server, server.keyOf(file), lock);
    fs::remove(journalFile(server, file));
}

void takeOffline(const Server& server, const fs::path& file, std::chrono::seconds wait) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (!tryTakeOffline(server, file)) {
        if (std::chrono::steady_clock::now() >= deadline) {
            throw StatusError(kDatabaseInUse, file.string());
        }
        std::this_thread::sleep_for(kPollInterval);
    }
}

void bringOnline(const Server& server, const fs::path& file) {
    const ServerLock lock(server);
    requireProbed(file);
    if (isOffline(server, file)) {
        // Before the file is opened: a journal of the old file would be rolled back into it.
        removeLeftovers(server, file, lock);
    }
    const auto log = openLog(server, lock);
    Database database(file, Connection::Mode::kReadWrite);
    if (log) {
        adoptIntoLog(server, database, *log);
    } else {
        database.header(); // is it one inside, too?
    }
    fs::remove(offlineFile(server, file));
}

} // namespace notes_sim
