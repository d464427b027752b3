// A server's library that costs next to nothing: databases are files as they lie, nothing changes
// during a copy, nobody is locked out, and every database is logged archive-style. What a backup
// takes with it is what the module and the client take. Only for measuring: what it copies is exact
// only while nothing writes.
#include "notes_api/types.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/stat.h>

namespace {

constexpr WORD kBuildVersion = 400;
constexpr std::size_t kPathSize = 1028;

struct Server {
    std::string iniFile;
    std::string dataDirectory; // with "/" at its end
    std::string activeLog;
};

// The values of the one server of this process, and the database that is open: the module opens one
// at a time. Handles say only what they are of.
Server server;
struct stat database;
char buffer[1 << 16];

constexpr DHANDLE kDatabase = 1;
constexpr DHANDLE kBackup = 2;
constexpr DHANDLE kApply = 3;
constexpr DHANDLE kBuffer = 4;

std::string iniValue(const std::string& name) {
    std::ifstream file(server.iniFile);
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, name.size() + 1, name + "=") == 0) {
            return line.substr(name.size() + 1);
        }
    }
    return {};
}

WORD copyOut(const std::string& text, char* target, std::size_t size) {
    const std::size_t length = std::min(text.size(), size - 1);
    std::memcpy(target, text.data(), length);
    target[length] = '\0';
    return static_cast<WORD>(length);
}

UNIVERSALNOTEID idOf(DWORD value) {
    return {{{value, 0}}, {{0, 0x80000001}}};
}

} // namespace

extern "C" {

#define NOTES_FUNCTION(result, name, args, handles) result name args;
#include "notes_api/functions.h"

// --- The runtime
STATUS NotesInitExtended(int argc, char** argv) {
    for (int i = 0; i < argc; ++i) {
        if (argv[i] != nullptr && argv[i][0] == '=') {
            server.iniFile = argv[i] + 1;
        }
    }
    server.dataDirectory = iniValue("Directory");
    if (server.dataDirectory.empty()) {
        return kNotesInvalidDirectory;
    }
    server.activeLog = iniValue("TRANSLOG_Path") + "/S0000001.TXN";
    return kNotesNoError;
}

void NotesTerm() {}

WORD OSGetDataDirectory(char* retPathName) {
    return copyOut(server.dataDirectory, retPathName, kPathSize);
}

BOOL OSGetEnvironmentString(const char* VariableName, char* retValueBuffer, WORD BufferLength) {
    const std::string value = iniValue(VariableName);
    copyOut(value, retValueBuffer, BufferLength);
    return value.empty() ? 0 : 1;
}

WORD OSLoadString(HMODULE, STATUS StringCode, char* retBuffer, WORD BufferLength) {
    return copyOut("status " + std::to_string(StringCode), retBuffer, BufferLength);
}

WORD OSTranslate(WORD, const char* In, WORD InLength, char* Out, WORD OutLength) {
    const std::string text =
        InLength == kTranslateWholeString ? std::string(In) : std::string(In, InLength);
    return copyOut(text, Out, OutLength);
}

STATUS OSMemAlloc(WORD, DWORD dwSize, DHANDLE* retHandle) {
    *retHandle = kBuffer;
    return dwSize <= sizeof buffer ? kNotesNoError : kNotesAccessDenied;
}

void* OSLockObject(DHANDLE) {
    return buffer;
}

BOOL OSUnlockObject(DHANDLE) {
    return 1;
}

STATUS OSMemFree(DHANDLE) {
    return kNotesNoError;
}

// --- Databases
STATUS NSFDbOpen(const char* PathName, DBHANDLE* rethDB) {
    std::string path = PathName;
    if (path.front() != '/') {
        path.insert(0, server.dataDirectory + "/");
    }
    *rethDB = kDatabase;
    return stat(path.c_str(), &database) == 0 ? kNotesNoError : kNotesNoSuchFile;
}

STATUS NSFDbClose(DBHANDLE) {
    return kNotesNoError;
}

STATUS NSFDbGetBuildVersion(DBHANDLE, WORD* retVersion) {
    *retVersion = kBuildVersion;
    return kNotesNoError;
}

STATUS NSFDbGetLogInfo(DBHANDLE, DWORD, BOOL* Logged, UNIVERSALNOTEID* LogID,
                       UNIVERSALNOTEID* DbIID, DWORD* LogExtent) {
    *Logged = 1;
    if (LogID != nullptr) {
        *LogID = idOf(1);
    }
    *DbIID = idOf(static_cast<DWORD>(database.st_ino));
    if (LogExtent != nullptr) {
        *LogExtent = 1;
    }
    return kNotesNoError;
}

// --- Online backup
STATUS NSFBackupStart(DBHANDLE, DWORD, DHANDLE* hBackupContext, DWORD* FileSizeLow,
                      DWORD* FileSizeHigh) {
    *hBackupContext = kBackup;
    *FileSizeLow = static_cast<DWORD>(database.st_size);
    *FileSizeHigh = static_cast<DWORD>(static_cast<std::uint64_t>(database.st_size) >> 32);
    return kNotesNoError;
}

STATUS NSFBackupSetHighWaterMark(DBHANDLE, DHANDLE, DWORD, DWORD) {
    return kNotesNoError;
}

STATUS NSFBackupStop(DBHANDLE, DHANDLE) {
    return kNotesNoError;
}

STATUS NSFBackupGetChangeInfoSize(DBHANDLE, DHANDLE, DWORD, DWORD* InfoSizeLow,
                                  DWORD* InfoSizeHigh) {
    *InfoSizeLow = 0;
    *InfoSizeHigh = 0;
    return kNotesNoError;
}

STATUS NSFBackupGetNextChangeInfo(DBHANDLE, DHANDLE, DWORD, BYTE*, DWORD, DWORD* FilledSize) {
    *FilledSize = 0;
    return kNotesNoError;
}

STATUS NSFBackupStartApplyChangeInfo(DHANDLE* ApplyInfoContext, char*, DWORD, DWORD, DWORD) {
    *ApplyInfoContext = kApply;
    return kNotesNoError;
}

STATUS NSFBackupApplyNextChangeInfo(DHANDLE, DWORD, BYTE*, DWORD) {
    return kNotesNoError;
}

STATUS NSFBackupEndApplyChangeInfo(DHANDLE, DWORD) {
    return kNotesNoError;
}

STATUS NSFBackupEnd(DBHANDLE, DHANDLE, DWORD) {
    return kNotesNoError;
}

STATUS NSFIsNewBackupNeeded(char*, DWORD, DWORD* BackupNeeded) {
    *BackupNeeded = 0;
    return kNotesNoError;
}

// --- Transaction logs: one, which is in use
STATUS NSFGetTransLogStyle(WORD* LogType) {
    *LogType = kLogStyleArchive;
    return kNotesNoError;
}

STATUS NSFBeginArchivingLogs() {
    return kNotesNoError;
}

STATUS NSFEndArchivingLogs() {
    return kNotesNoError;
}

STATUS NSFGetFirstLogToArchive(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath) {
    *LogID = idOf(1);
    *LogNumber = 1;
    copyOut(server.activeLog, LogPath, kPathSize);
    return kNotesNoLogToArchive;
}

STATUS NSFGetNextLogToArchive(UNIVERSALNOTEID* LogID, DWORD* LogNumber, char* LogPath) {
    return NSFGetFirstLogToArchive(LogID, LogNumber, LogPath);
}

STATUS NSFDoneArchivingLog(UNIVERSALNOTEID*, DWORD*) {
    return kNotesNoError;
}

} // extern "C"
