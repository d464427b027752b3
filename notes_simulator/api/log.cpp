// The transaction log: its style, and archiving its extents.
#include "notes_simulator/api/call.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/notes_simulator.h"
#include "notes_simulator/server/server_lock.h"

#include <algorithm>
#include <cstring>

using namespace notes_sim;

namespace {

void requireLogging(const Server& server) {
    if (server.style == LogStyle::kNone) {
        throw StatusError(kNoTransactionLogging, "");
    }
}

Status logToArchive(const char* function, bool first, UNIVERSALNOTEID* id, DWORD* number,
                    char* path) {
    return statusCall(function, "", [&](ApiCall& call) -> Status {
        require(id);
        require(number);
        require(path);
        const Server& server = knownServer();
        requireLogging(server);
        const ServerLock lock(server);
        if (server.moods.has(Mood::kSession) && !ownsArchivingSession(server)) {
            throw StatusError(kNoArchivingSession, "");
        }
        const auto log = openLog(server, lock);
        std::uint32_t& cursor = process().archiveCursor;
        if (first) {
            cursor = 0;
        }
        const std::vector<std::uint32_t> ready = log->readyExtents();
        const auto next = std::upper_bound(ready.begin(), ready.end(), cursor);
        const bool found = next != ready.end();
        if (found) {
            cursor = *next;
        }
        const std::uint32_t extent = found ? cursor : log->activeExtent();
        std::memcpy(id, log->logId().data(), sizeof *id);
        *number = server.logNumber(extent);
        const std::string text = log->extentPath(extent).string();
        if (text.size() >= 1028) {
            throw StatusError(kInvalidArgument, "path of the log is too long");
        }
        std::memcpy(path, text.c_str(), text.size() + 1);
        call.output("number", *number);
        call.output("path", text.c_str());
        return found ? kOk : kNoLogToArchive;
    });
}

} // namespace

STATUS NSFGetTransLogStyle(WORD* LogType) {
    return statusCall("NSFGetTransLogStyle", "", [&](ApiCall& call) -> Status {
        require(LogType);
        const Server& server = knownServer();
        requireLogging(server);
        *LogType = static_cast<WORD>(server.style);
        if (server.style != LogStyle::kArchive) {
            process().archivingDenied = true;
        }
        call.output("style", *LogType);
        return kOk;
    });
}

STATUS NSFBeginArchivingLogs(void) {
    return statusCall("NSFBeginArchivingLogs", "", [&](ApiCall&) -> Status {
        requireLogging(knownServer());
        beginArchiving(knownServer());
        return kOk;
    });
}

STATUS NSFEndArchivingLogs(void) {
    return statusCall("NSFEndArchivingLogs", "", [&](ApiCall&) -> Status {
        requireLogging(knownServer());
        endArchiving(knownServer());
        return kOk;
    });
}

STATUS NSFGetFirstLogToArchive(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath) {
    return logToArchive("NSFGetFirstLogToArchive", true, LogID, LogNumber, LogPath);
}

STATUS NSFGetNextLogToArchive(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath) {
    return logToArchive("NSFGetNextLogToArchive", false, LogID, LogNumber, LogPath);
}

STATUS NSFDoneArchivingLog(UNIVERSALNOTEID* LogID, DWORD* LogNumber) {
    const std::string number = LogNumber == nullptr ? "NULL" : std::to_string(*LogNumber);
    return statusCall("NSFDoneArchivingLog", number, [&](ApiCall&) -> Status {
        require(LogID);
        require(LogNumber);
        const Server& server = knownServer();
        requireLogging(server);
        const ServerLock lock(server);
        const auto log = openLog(server, lock);
        Id16 id{};
        std::memcpy(id.data(), LogID, id.size());
        log->archived(id, server.extentOf(*LogNumber));
        return kOk;
    });
}
