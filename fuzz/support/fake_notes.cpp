#include "fuzz/support/fake_notes.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <vector>

#include "fuzz/support/target.h"

namespace fuzz {

namespace {

constexpr std::size_t kPathRoom = 1028;
constexpr std::array<STATUS, 15> kFailures = {kNotesNoSuchFile,
                                              kNotesAccessDenied,
                                              kNotesInvalidDirectory,
                                              kNotesNotADatabase,
                                              kNotesNoNoteModified,
                                              kNotesBackupInProgress,
                                              kNotesArchivingInProgress,
                                              kNotesNoLogToArchive,
                                              kNotesDatabaseInUse,
                                              kNotesNotBackedUp,
                                              kNotesLoggingNotInEffect,
                                              1,
                                              0x4000,
                                              0xC103,
                                              0xFFFF};

std::string_view s_tape;
std::set<DHANDLE> s_databases, s_backups, s_applies;
std::map<DHANDLE, std::vector<NOTEID>> s_tables;
std::map<DHANDLE, std::vector<BYTE>> s_memory;
std::set<DHANDLE> s_openByContract;
DHANDLE s_lastHandle = 0;
DHANDLE s_lastLogged = 0; // the database whose log information was asked for last
int s_archivedLogs = 0;
std::size_t s_scanned = 0;

unsigned next() {
    if (s_tape.empty()) {
        return 0;
    }
    const auto byte = static_cast<unsigned char>(s_tape.front());
    s_tape.remove_prefix(1);
    return byte;
}

// Most bytes are a success.
STATUS nextStatus() {
    const unsigned byte = next();
    return byte < 0xE0 ? kNotesNoError : kFailures[(byte - 0xE0) % kFailures.size()];
}

DHANDLE newHandle(std::set<DHANDLE>& handles) {
    handles.insert(++s_lastHandle);
    return s_lastHandle;
}

void requireHeld(const std::set<DHANDLE>& handles, DHANDLE handle, const char* what) {
    require(handles.count(handle) != 0, what);
}

void requireOpen(DBHANDLE database) {
    requireHeld(s_databases, database, "a database that is used is open");
}

UNIVERSALNOTEID nextId() {
    const DWORD number = next();
    return {{{number, 0xC1258A4F}}, {{number << 24, 0xFFFFFFFF}}};
}

std::vector<NOTEID>& table(DHANDLE handle) {
    require(s_tables.count(handle) != 0, "a table that is used is there");
    return s_tables[handle];
}

STATUS newTable(DHANDLE* handle) {
    const STATUS status = nextStatus();
    if (status == kNotesNoError) {
        std::vector<NOTEID> ids(next() % 8);
        for (NOTEID& id : ids) {
            const unsigned byte = next();
            id = (byte & 0x7F) | ((byte & 0x80) << 24); // few ids, so that tables share some
        }
        *handle = ++s_lastHandle;
        s_tables[*handle] = ids;
    }
    return status;
}

// Writes as many bytes as fit, without a NUL where they fill the buffer.
WORD put(const std::string& text, char* out, std::size_t size) {
    const std::size_t length = std::min(text.size(), size);
    std::memcpy(out, text.data(), length);
    if (length < size) {
        out[length] = '\0';
    }
    return static_cast<WORD>(length);
}

std::string nextDirectory(const char* usual) {
    switch (next()) {
    case 0xFF:
        return "";
    case 0xFE:
        return folder() + "/" + std::string(kPathRoom - 2 - folder().size(), 'd');
    case 0xFD:
        return "relative";
    case 0xFC:
        return folder() + usual + "/";
    default:
        return folder() + usual;
    }
}

STATUS logToArchive(UNIVERSALNOTEID* id, DWORD* number, char* path) {
    STATUS status = nextStatus();
    const unsigned byte = next();
    *id = nextId();
    *number = byte;
    if (s_tape.empty()) {
        status = kNotesNoLogToArchive; // a server has an end of logs
    }
    const std::string log = nextDirectory("/log") + "/S" + std::to_string(byte) + ".TXN";
    put(byte == 0xFF ? "S.TXN" : byte == 0xFE ? "" : log.substr(0, kPathRoom - 1), path, kPathRoom);
    return status;
}

void installRuntime() {
    notes_api.NotesInitExtended = [](int, char**) -> STATUS { return nextStatus(); };
    notes_api.NotesTerm = [] {};
    notes_api.OSGetDataDirectory = [](char* path) -> WORD {
        return put(nextDirectory("/data"), path, kPathRoom);
    };
    notes_api.OSGetEnvironmentString = [](const char*, char* value, WORD size) -> BOOL {
        return put(nextDirectory("/program"), value, size) != 0;
    };
    notes_api.OSLoadString = [](HMODULE, STATUS status, char* text, WORD size) -> WORD {
        return put("status " + std::to_string(status) + " 100%n %s%%", text, size);
    };
    // One byte above 127 becomes three: a text may grow threefold.
    notes_api.OSTranslate = [](WORD, const char* in, WORD, char* out, WORD size) -> WORD {
        std::string text;
        for (; *in != '\0' && text.size() <= size; ++in) {
            text += *in;
            text.append(static_cast<unsigned char>(*in) > 127 ? 2 : 0, '\x81');
        }
        return put(text, out, size);
    };
    notes_api.OSMemAlloc = [](WORD, DWORD size, DHANDLE* handle) -> STATUS {
        const STATUS status = nextStatus();
        if (status == kNotesNoError) {
            *handle = ++s_lastHandle;
            s_memory[*handle].resize(size);
        }
        return status;
    };
    notes_api.OSLockObject = [](DHANDLE handle) -> void* {
        require(s_memory.count(handle) != 0, "memory that is locked is there");
        return nextStatus() == kNotesNoError ? s_memory[handle].data() : nullptr;
    };
    notes_api.OSUnlockObject = [](DHANDLE handle) -> BOOL {
        require(s_memory.count(handle) != 0, "memory that is unlocked is there");
        return 1;
    };
    notes_api.OSMemFree = [](DHANDLE handle) -> STATUS {
        require(s_memory.erase(handle) == 1, "memory is freed once");
        return nextStatus();
    };
}

void installTimes() {
    notes_api.OSGetIntlSettings = [](INTLFORMAT* format, WORD) {
        *format = INTLFORMAT{};
        std::memset(format->DateString, next() < 0xF0 ? '.' : 'x', sizeof format->DateString);
        format->DateString[1] = '\0';
        format->TimeString[0] = ':';
    };
    notes_api.ConvertTextToTIMEDATE = [](const void*, const void*, char** text, WORD length,
                                         TIMEDATE* time) -> STATUS {
        *text += strnlen(*text, length);
        *time = {{next(), 0x00258A4F}};
        return nextStatus();
    };
    notes_api.ConvertTIMEDATEToText = [](const void*, const void*, const TIMEDATE*, char* text,
                                         WORD size, WORD* length) -> STATUS {
        const unsigned byte = next();
        *length = byte < 0xF0 ? put("21/11/2026 02:49", text, size) : static_cast<WORD>(byte << 8);
        return nextStatus();
    };
    notes_api.TimeConstant = [](WORD, TIMEDATE* time) { *time = {{0xFFFFFFFF, 0}}; };
    notes_api.SECKFMGetUserName = [](char* name) -> STATUS {
        put(std::string(next() < 0xF0 ? 5 : 256, 'u'), name, 257);
        return nextStatus();
    };
}

void installDatabases() {
    notes_api.NSFDbOpen = [](const char*, DBHANDLE* handle) -> STATUS {
        const STATUS status = nextStatus();
        if (status == kNotesNoError) {
            *handle = newHandle(s_databases);
        }
        return status;
    };
    notes_api.NSFDbClose = [](DBHANDLE handle) -> STATUS {
        require(s_databases.erase(handle) == 1, "a database is closed once");
        return nextStatus();
    };
    notes_api.NSFDbGetBuildVersion = [](DBHANDLE handle, WORD* version) -> STATUS {
        requireOpen(handle);
        *version = static_cast<WORD>(next() * 2);
        return nextStatus();
    };
    notes_api.NSFDbIDGet = [](DBHANDLE handle, DBID* id) -> STATUS {
        requireOpen(handle);
        *id = nextId().File;
        return nextStatus();
    };
    notes_api.NSFDbGetLogInfo = [](DBHANDLE handle, DWORD, BOOL* logged, UNIVERSALNOTEID* log,
                                   UNIVERSALNOTEID* id, DWORD* extent) -> STATUS {
        requireOpen(handle);
        s_lastLogged = handle;
        *logged = next() < 0xC0 ? 1 : 0;
        *id = nextId();
        if (log != nullptr) {
            *log = *id;
        }
        if (extent != nullptr) {
            *extent = 1;
        }
        return nextStatus();
    };
    notes_api.NSFDbGetModifiedNoteTable = [](DBHANDLE handle, WORD, TIMEDATE, TIMEDATE*,
                                             DHANDLE* ids) -> STATUS {
        requireOpen(handle);
        return newTable(ids);
    };
    notes_api.NSFTakeDatabaseOffline = [](char*, DWORD, DWORD) { return nextStatus(); };
    notes_api.NSFBringDatabaseOnline = [](char*, DWORD) { return nextStatus(); };
    notes_api.NSFRecoverDatabases = [](char* names, LOGRESTORECALLBACKFUNCTION ask, DWORD,
                                       WORD* index, TIMEDATE*) -> STATUS {
        while (*names != '\0') {
            names += std::strlen(names) + 1;
        }
        UNIVERSALNOTEID id = nextId();
        std::string log = folder() + "/log/S" + std::to_string(next()) + ".TXN";
        ask(&id, next(), next() < 0xF0 ? log.data() : nullptr);
        *index = static_cast<WORD>(next());
        return nextStatus();
    };
}

void installNotes() {
    notes_api.NSFDbCopyNote = [](DBHANDLE from, DBID*, DBID*, NOTEID, DBHANDLE to, DBID*, DBID*,
                                 NOTEID*, WORD*) -> STATUS {
        requireOpen(from);
        requireOpen(to);
        return nextStatus();
    };
    notes_api.NSFNoteDelete = [](DBHANDLE handle, NOTEID, WORD) -> STATUS {
        requireOpen(handle);
        return nextStatus();
    };
    notes_api.NSFDbGetUnreadNoteTable = [](DBHANDLE handle, char*, WORD, BOOL,
                                           DHANDLE* ids) -> STATUS {
        requireOpen(handle);
        return newTable(ids);
    };
    notes_api.NSFDbUpdateUnread = [](DBHANDLE handle, DHANDLE ids) -> STATUS {
        requireOpen(handle);
        table(ids);
        return nextStatus();
    };
    notes_api.NSFDbSetUnreadNoteTable = [](DBHANDLE handle, char*, WORD, BOOL, DHANDLE before,
                                           DHANDLE after) -> STATUS {
        requireOpen(handle);
        table(before);
        table(after);
        return nextStatus();
    };
    notes_api.IDEntries = [](DHANDLE ids) { return static_cast<DWORD>(table(ids).size()); };
    notes_api.IDScan = [](DHANDLE ids, BOOL first, NOTEID* id) -> BOOL {
        s_scanned = first != 0 ? 0 : s_scanned + 1;
        if (s_scanned >= table(ids).size()) {
            return 0;
        }
        *id = table(ids)[s_scanned];
        return 1;
    };
    notes_api.IDIsPresent = [](DHANDLE ids, NOTEID id) -> BOOL {
        return std::count(table(ids).begin(), table(ids).end(), id) != 0;
    };
    notes_api.IDInsert = [](DHANDLE ids, NOTEID id, BOOL*) -> STATUS {
        const STATUS status = nextStatus();
        if (status == kNotesNoError) {
            table(ids).push_back(id);
        }
        return status;
    };
    notes_api.IDTableCopy = [](DHANDLE ids, DHANDLE* copy) -> STATUS {
        const std::vector<NOTEID> content = table(ids);
        const STATUS status = nextStatus();
        if (status == kNotesNoError) {
            *copy = ++s_lastHandle;
            s_tables[*copy] = content;
        }
        return status;
    };
    notes_api.IDDestroyTable = [](DHANDLE ids) -> STATUS {
        require(s_tables.erase(ids) == 1, "a table is destroyed once");
        return nextStatus();
    };
}

void installBackup() {
    notes_api.NSFBackupStart = [](DBHANDLE handle, DWORD, DHANDLE* context, DWORD* low,
                                  DWORD* high) -> STATUS {
        requireOpen(handle);
        const STATUS status = nextStatus();
        // Also a backup that is in progress already has a context, which is to be ended.
        if (status == kNotesNoError || status == kNotesBackupInProgress) {
            *context = newHandle(s_backups);
        }
        const unsigned byte = next();
        // The files have seven bytes; zeros stand for what the server says beyond them.
        *low = byte < 0xF0 ? byte % 8 : 70000;
        *high = 0;
        return status;
    };
    notes_api.NSFBackupSetHighWaterMark = [](DBHANDLE, DHANDLE context, DWORD, DWORD) -> STATUS {
        requireHeld(s_backups, context, "a backup that is marked has begun");
        return nextStatus();
    };
    notes_api.NSFBackupStop = [](DBHANDLE handle, DHANDLE context) -> STATUS {
        requireOpen(handle);
        requireHeld(s_backups, context, "a backup that is stopped has begun");
        return nextStatus();
    };
    notes_api.NSFBackupGetChangeInfoSize = [](DBHANDLE, DHANDLE context, DWORD, DWORD* low,
                                              DWORD* high) -> STATUS {
        requireHeld(s_backups, context, "a backup that is asked has begun");
        *low = next();
        *high = 0;
        return nextStatus();
    };
    notes_api.NSFBackupGetNextChangeInfo = [](DBHANDLE, DHANDLE context, DWORD, BYTE* buffer,
                                              DWORD size, DWORD* filled) -> STATUS {
        requireHeld(s_backups, context, "a backup that is asked has begun");
        const unsigned byte = next();
        *filled = byte == 0xFF ? size : byte;
        std::memset(buffer, 0x5A, *filled);
        return nextStatus();
    };
    notes_api.NSFBackupStartApplyChangeInfo = [](DHANDLE* context, char*, DWORD, DWORD,
                                                 DWORD) -> STATUS {
        const STATUS status = nextStatus();
        if (status == kNotesNoError) {
            *context = newHandle(s_applies);
        }
        return status;
    };
    notes_api.NSFBackupApplyNextChangeInfo = [](DHANDLE context, DWORD, BYTE* buffer,
                                                DWORD size) -> STATUS {
        requireHeld(s_applies, context, "changes are applied where that has begun");
        require(std::all_of(buffer, buffer + size, [](BYTE byte) { return byte == 0x5A; }),
                "the changes that are applied are those that were fetched");
        return nextStatus();
    };
    notes_api.NSFBackupEndApplyChangeInfo = [](DHANDLE context, DWORD) -> STATUS {
        require(s_applies.erase(context) == 1, "applying changes ends once");
        return nextStatus();
    };
    notes_api.NSFBackupEnd = [](DBHANDLE handle, DHANDLE context, DWORD) -> STATUS {
        requireOpen(handle);
        require(s_backups.erase(context) == 1, "a backup ends once");
        return nextStatus();
    };
    notes_api.NSFIsNewBackupNeeded = [](char*, DWORD, DWORD* needed) -> STATUS {
        *needed = next();
        return nextStatus();
    };
}

void installLogs() {
    notes_api.NSFGetTransLogStyle = [](WORD* style) -> STATUS {
        const unsigned byte = next();
        *style = byte < 0xC0 ? kLogStyleArchive : static_cast<WORD>(byte % 4);
        const STATUS status = nextStatus();
        if (status == kNotesLoggingNotInEffect) {
            s_openByContract.insert(s_lastLogged);
        }
        return status;
    };
    notes_api.NSFBeginArchivingLogs = []() -> STATUS { return nextStatus(); };
    notes_api.NSFEndArchivingLogs = []() -> STATUS { return nextStatus(); };
    notes_api.NSFGetFirstLogToArchive = &logToArchive;
    notes_api.NSFGetNextLogToArchive = &logToArchive;
    notes_api.NSFDoneArchivingLog = [](UNIVERSALNOTEID*, DWORD*) -> STATUS {
        ++s_archivedLogs;
        return nextStatus();
    };
}

} // namespace

void installFakeNotes() {
    installRuntime();
    installTimes();
    installDatabases();
    installNotes();
    installBackup();
    installLogs();
    for (const NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
        require(slot->address() != nullptr, "every slot of the table is filled");
    }
}

void startFakeServer(std::string_view tape) {
    s_tape = tape;
    s_archivedLogs = 0;
    s_lastHandle = 0;
    s_lastLogged = 0;
}

HeldResources heldResources() {
    int databases = 0;
    for (const DHANDLE handle : s_databases) {
        databases += s_openByContract.count(handle) == 0 ? 1 : 0;
    }
    return {databases, static_cast<int>(s_backups.size()), static_cast<int>(s_applies.size()),
            static_cast<int>(s_tables.size()), static_cast<int>(s_memory.size())};
}

void releaseHeldResources() {
    s_databases.clear();
    s_openByContract.clear();
    s_backups.clear();
    s_applies.clear();
    s_tables.clear();
    s_memory.clear();
}

int archivedLogs() {
    return s_archivedLogs;
}

} // namespace fuzz
