// Opening databases, what they say about themselves, and ID tables.
#include "notes_simulator/api/call.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/engine/offline.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/notes_simulator.h"
#include "notes_simulator/server/server_lock.h"

#include <cstring>

using namespace notes_sim;

namespace {

constexpr WORD kBuildVersion = 400;

template <class Target, class Id>
void copyId(Target* target, const Id& id) {
    static_assert(sizeof(Target) == sizeof(Id));
    if (target != nullptr) {
        std::memcpy(target, id.data(), id.size());
    }
}

std::string numbers(DWORD first) {
    return std::to_string(first);
}

} // namespace

STATUS NSFDbOpen(const char* PathName, DBHANDLE* rethDB) {
    return statusCall("NSFDbOpen", quoted(PathName), [&](ApiCall& call) -> Status {
        require(PathName);
        require(rethDB);
        *rethDB = 0;
        const Server& server = runningServer();
        const std::filesystem::path file = databaseFile(server, PathName);
        std::unique_ptr<OpenDatabase> opened;
        {
            const ServerLock lock(server);
            requireOnline(server, file);
            if (const Status status = probeDatabase(file); status != kOk) {
                return status;
            }
            opened = std::make_unique<OpenDatabase>(server, file, lock);
            openLog(server, lock); // finishes what a killed writer left, maybe in this database
        }
        Database(file, Connection::Mode::kReadWrite).header(); // is it one inside, too?
        *rethDB = process().databases.add(std::move(opened));
        call.output("hDB", *rethDB);
        return kOk;
    });
}

STATUS NSFDbClose(DBHANDLE hDB) {
    return statusCall("NSFDbClose", numbers(hDB), [&](ApiCall&) -> Status {
        process().databases.take(hDB);
        return kOk;
    });
}

STATUS NSFTakeDatabaseOffline(char* DbName, DWORD WaitTime, DWORD Options) {
    return statusCall(
        "NSFTakeDatabaseOffline",
        quoted(DbName) + ", " + std::to_string(WaitTime) + ", " + std::to_string(Options),
        [&](ApiCall&) -> Status {
            require(DbName);
            if (Options != 0) {
                throw StatusError(kInvalidArgument, "options");
            }
            const Server& server = runningServer();
            takeOffline(server, databaseFile(server, DbName), std::chrono::seconds(WaitTime));
            return kOk;
        });
}

STATUS NSFBringDatabaseOnline(char* DbName, DWORD Options) {
    return statusCall("NSFBringDatabaseOnline", quoted(DbName) + ", " + std::to_string(Options),
                      [&](ApiCall&) -> Status {
                          require(DbName);
                          if (Options != 0) {
                              throw StatusError(kInvalidArgument, "options");
                          }
                          const Server& server = runningServer();
                          bringOnline(server, databaseFile(server, DbName));
                          return kOk;
                      });
}

STATUS NSFDbGetBuildVersion(DBHANDLE hDB, WORD* retVersion) {
    return statusCall("NSFDbGetBuildVersion", numbers(hDB), [&](ApiCall&) -> Status {
        require(retVersion);
        process().databases.get(hDB);
        *retVersion = kBuildVersion;
        return kOk;
    });
}

STATUS NSFDbIDGet(DBHANDLE hDB, DBID* retDbID) {
    return statusCall("NSFDbIDGet", numbers(hDB), [&](ApiCall&) -> Status {
        require(retDbID);
        copyId(retDbID, connect(hDB).header().dbid);
        return kOk;
    });
}

STATUS NSFDbGetLogInfo(DBHANDLE hDB, DWORD Flags, BOOL* Logged, UNIVERSALNOTEID* LogID,
                       UNIVERSALNOTEID* DbIID, DWORD* LogExtent) {
    return statusCall("NSFDbGetLogInfo", numbers(hDB) + ", " + std::to_string(Flags),
                      [&](ApiCall& call) -> Status {
                          const OpenDatabase& opened = process().databases.get(hDB);
                          const Server& server = runningServer();
                          const ServerLock lock(server);
                          const auto log = openLog(server, lock);
                          const DatabaseHeader header = connect(hDB).header();
                          const bool logged =
                              log != nullptr && isLogged(server, opened.file, header);
                          const Id16 none{};
                          if (Logged != nullptr) {
                              *Logged = logged ? 1 : 0;
                          }
                          copyId(LogID, logged ? log->logId() : none);
                          copyId(DbIID, logged ? header.dbiid : none);
                          if (LogExtent != nullptr) {
                              *LogExtent = logged ? server.logNumber(log->activeExtent()) : 0;
                          }
                          call.output("logged", logged ? 1U : 0U);
                          call.output("dbiid", hex(logged ? header.dbiid : none).c_str());
                          return kOk;
                      });
}

STATUS NSFDbGetModifiedNoteTable(DBHANDLE hDB, WORD NoteClassMask, TIMEDATE Since,
                                 TIMEDATE* retUntil, DHANDLE* rethTable) {
    const std::int64_t since = fromTimeWords({Since.Innards[0], Since.Innards[1]});
    return statusCall("NSFDbGetModifiedNoteTable",
                      numbers(hDB) + ", " + std::to_string(NoteClassMask) + ", " +
                          std::to_string(since),
                      [&](ApiCall& call) -> Status {
                          require(rethTable);
                          *rethTable = 0;
                          if (retUntil != nullptr) {
                              const TimeWords now = toTimeWords(nowInHundredths());
                              *retUntil = {{now.ticks, now.day}};
                          }
                          const auto ids = connect(hDB).modifiedSince(since, NoteClassMask);
                          if (ids.empty()) {
                              return kNoModifiedNotes;
                          }
                          *rethTable = process().tables.add(std::make_unique<IdTable>(ids));
                          call.output("hTable", *rethTable);
                          call.output("entries", ids.size());
                          return kOk;
                      });
}

DWORD IDEntries(DHANDLE hTable) {
    return valueCall("IDEntries", numbers(hTable), DWORD{0}, [&](ApiCall&) {
        return static_cast<DWORD>(process().tables.get(hTable).entries());
    });
}

BOOL IDScan(DHANDLE hTable, BOOL fFirst, NOTEID* retID) {
    return valueCall("IDScan", numbers(hTable) + ", " + std::to_string(fFirst), BOOL{0},
                     [&](ApiCall& call) -> BOOL {
                         require(retID);
                         if (!process().tables.get(hTable).scan(fFirst != 0, retID)) {
                             return 0;
                         }
                         call.output("id", *retID);
                         return 1;
                     });
}

BOOL IDIsPresent(DHANDLE hTable, NOTEID id) {
    return valueCall(
        "IDIsPresent", numbers(hTable) + ", " + std::to_string(id), BOOL{0},
        [&](ApiCall&) -> BOOL { return process().tables.get(hTable).contains(id) ? 1 : 0; });
}

STATUS IDInsert(DHANDLE hTable, NOTEID id, BOOL* retfInserted) {
    return statusCall("IDInsert", numbers(hTable) + ", " + std::to_string(id),
                      [&](ApiCall&) -> Status {
                          const bool inserted = process().tables.get(hTable).insert(id);
                          if (retfInserted != nullptr) {
                              *retfInserted = inserted ? 1 : 0;
                          }
                          return kOk;
                      });
}

STATUS IDTableCopy(DHANDLE hTable, DHANDLE* rethTable) {
    return statusCall("IDTableCopy", numbers(hTable), [&](ApiCall& call) -> Status {
        require(rethTable);
        *rethTable = process().tables.add(std::make_unique<IdTable>(process().tables.get(hTable)));
        call.output("hTable", *rethTable);
        return kOk;
    });
}

STATUS IDDestroyTable(DHANDLE hTable) {
    return statusCall("IDDestroyTable", numbers(hTable), [&](ApiCall&) -> Status {
        process().tables.take(hTable);
        return kOk;
    });
}
