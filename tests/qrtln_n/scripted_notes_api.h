// The Notes C API as a script: a table of the calls that the module is expected to make, with the
// arguments of each and the answer that it gets.
//
//   ScriptedNotesApi script;
//   script.play({{"NSFDbOpen L:/data/a.nsf", {.numbers = {7}}}, {"NSFDbClose 7"}});
//
// A call is the function's name and its input arguments, separated by blanks. A mismatch fails the
// test and names the step; after the first one every call answers a failure and nothing more is
// compared. What the script still holds at the end fails the test too.
//
// Not scripted are the calls that answer without changing anything: OSTranslate puts "L:" before a
// name and, to UTF-8, "U:" before that, so that an untranslated name is seen; OSLoadString answers
// "Notes text N"; OSGetIntlSettings hands out `settings`; NSFDbGetBuildVersion is counted;
// TimeConstant gives 4294967295 0. Tables of ids are in `tables`, a member per handle: IDScan,
// IDIsPresent and IDInsert go by it.
#pragma once

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "notes_api/notes_api.h"

// What a scripted call answers. Outputs that are not given stay as the caller left them.
struct Answer {
    STATUS status = 0;
    std::vector<DWORD> numbers = {}; // output numbers and handles, in the order of the arguments
    std::string text = {};           // output text or bytes
    UNIVERSALNOTEID id = {};
    std::function<void()> effect = {}; // runs during the call
};

struct Step {
    std::string call;
    Answer answer = {};
};

class ScriptedNotesApi {
  public:
    ScriptedNotesApi() {
        s_current = this;
        for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
            m_former[slot] = slot->address();
            slot->setAddress(reinterpret_cast<void*>(&callWithoutScript));
        }
        installRuntime();
        installDatabases();
        installNotes();
        installBackup();
        installLogs();
    }
    ~ScriptedNotesApi() {
        for (const auto& [slot, address] : m_former) {
            slot->setAddress(address);
        }
        s_current = nullptr;
        if (!m_failed && m_next < m_steps.size()) {
            ADD_FAILURE() << "step " << m_next + 1 << " was not played: " << m_steps[m_next].call;
        }
    }
    ScriptedNotesApi(const ScriptedNotesApi&) = delete;
    ScriptedNotesApi& operator=(const ScriptedNotesApi&) = delete;

    void play(const std::vector<Step>& steps) {
        m_steps.insert(m_steps.end(), steps.begin(), steps.end());
    }
    // Whether every step was played and none failed.
    bool done() const { return !m_failed && m_next == m_steps.size(); }

    INTLFORMAT settings = {};
    int buildVersionCalls = 0;
    std::vector<BYTE> memory = std::vector<BYTE>(32768);
    std::map<DHANDLE, std::vector<NOTEID>> tables;

  private:
    inline static ScriptedNotesApi* s_current = nullptr;

    static int callWithoutScript() {
        ADD_FAILURE() << "a function was called that no script knows";
        return 1;
    }

    template <typename... Arguments>
    static Answer take(const char* name, const Arguments&... arguments) {
        std::ostringstream call;
        call << name;
        ((call << ' ' << arguments), ...);
        return s_current->answer(call.str());
    }

    Answer answer(const std::string& call) {
        if (!m_failed && m_next < m_steps.size() && m_steps[m_next].call == call) {
            const Answer found = m_steps[m_next++].answer;
            if (found.effect) {
                found.effect();
            }
            return found;
        }
        if (!m_failed) {
            ADD_FAILURE() << "step " << m_next + 1 << ": expected "
                          << (m_next < m_steps.size() ? m_steps[m_next].call : "no more calls")
                          << "\n  but the call was " << call;
            m_failed = true;
        }
        return {.status = 1};
    }

    static void put(const Answer& answer, std::size_t index, DWORD* target) {
        if (index < answer.numbers.size()) {
            *target = answer.numbers[index];
        }
    }

    static STATUS logToArchive(const char* name, UNIVERSALNOTEID* id, DWORD* number, char* path) {
        const Answer a = take(name);
        *id = a.id;
        put(a, 0, number);
        std::strcpy(path, a.text.c_str());
        return a.status;
    }

    void installRuntime() {
        notes_api.NotesInitExtended = [](int argc, char** argv) -> STATUS {
            std::string list;
            for (int i = 0; i < argc; ++i) {
                list += (i == 0 ? "" : " ") + std::string(argv[i]);
            }
            return take("NotesInitExtended", argc, list).status;
        };
        notes_api.NotesTerm = [] { take("NotesTerm"); };
        notes_api.OSGetDataDirectory = [](char* path) -> WORD {
            const Answer a = take("OSGetDataDirectory");
            std::strcpy(path, a.text.c_str());
            return static_cast<WORD>(a.text.size());
        };
        notes_api.OSGetEnvironmentString = [](const char* name, char* value, WORD size) -> BOOL {
            const Answer a = take("OSGetEnvironmentString", name, size);
            std::strcpy(value, a.text.c_str());
            return !a.text.empty();
        };
        notes_api.OSLoadString = [](HMODULE module, STATUS code, char* text, WORD size) -> WORD {
            EXPECT_EQ(module, 0u);
            EXPECT_EQ(size, 1512);
            return static_cast<WORD>(std::snprintf(text, size, "Notes text %d", code));
        };
        notes_api.OSTranslate = [](WORD mode, const char* in, WORD length, char* out,
                                   WORD size) -> WORD {
            EXPECT_EQ(length, 0xFFFF);
            const std::string text = (mode == 0    ? "L:"
                                      : mode == 22 ? "U:"
                                                   : "?:") +
                                     std::string(in);
            const std::size_t kept = std::min<std::size_t>(text.size(), size);
            std::memcpy(out, text.data(), kept);
            if (kept < size) {
                out[kept] = '\0';
            }
            return static_cast<WORD>(kept);
        };
        notes_api.OSMemAlloc = [](WORD type, DWORD size, DHANDLE* handle) -> STATUS {
            const Answer a = take("OSMemAlloc", type, size);
            put(a, 0, handle);
            return a.status;
        };
        notes_api.OSLockObject = [](DHANDLE handle) -> void* {
            return take("OSLockObject", handle).status == 0 ? s_current->memory.data() : nullptr;
        };
        notes_api.OSUnlockObject = [](DHANDLE handle) -> BOOL {
            return take("OSUnlockObject", handle).status == 0;
        };
        notes_api.OSMemFree = [](DHANDLE handle) { return take("OSMemFree", handle).status; };
        notes_api.OSGetIntlSettings = [](INTLFORMAT* intl, WORD size) {
            EXPECT_EQ(size, sizeof(INTLFORMAT));
            *intl = s_current->settings;
        };
        notes_api.ConvertTextToTIMEDATE = [](const void* intl, const void* format, char** text,
                                             WORD length, TIMEDATE* time) -> STATUS {
            const auto* f = static_cast<const TFMT*>(format);
            const std::string value(*text, length);
            const Answer a =
                intl == nullptr && f == nullptr
                    ? take("ConvertTextToTIMEDATE defaults", value)
                    : take("ConvertTextToTIMEDATE", static_cast<const INTLFORMAT*>(intl)->Flags,
                           int{f->Date}, int{f->Time}, int{f->Zone}, int{f->Structure}, value);
            put(a, 0, &time->Innards[0]);
            put(a, 1, &time->Innards[1]);
            return a.status;
        };
        notes_api.TimeConstant = [](WORD type, TIMEDATE* time) {
            EXPECT_EQ(type, 2);
            *time = {{0xFFFFFFFF, 0}};
        };
        notes_api.ConvertTIMEDATEToText = [](const void*, const void*, const TIMEDATE* time,
                                             char* text, WORD size, WORD* length) -> STATUS {
            const Answer a =
                take("ConvertTIMEDATEToText", time->Innards[0], time->Innards[1], size);
            *length = static_cast<WORD>(std::min<std::size_t>(a.text.size(), size));
            std::memcpy(text, a.text.data(), *length);
            return a.status;
        };
    }

    void installDatabases() {
        notes_api.NSFDbOpen = [](const char* path, DBHANDLE* handle) -> STATUS {
            const Answer a = take("NSFDbOpen", path);
            put(a, 0, handle);
            return a.status;
        };
        notes_api.NSFDbClose = [](DBHANDLE handle) { return take("NSFDbClose", handle).status; };
        notes_api.NSFDbGetBuildVersion = [](DBHANDLE, WORD* version) -> STATUS {
            ++s_current->buildVersionCalls;
            *version = 405;
            return 0;
        };
        notes_api.NSFDbGetLogInfo = [](DBHANDLE handle, DWORD flags, BOOL* logged, UNIVERSALNOTEID*,
                                       UNIVERSALNOTEID* dbIID, DWORD*) -> STATUS {
            const Answer a = take("NSFDbGetLogInfo", handle, flags);
            if (!a.numbers.empty()) {
                *logged = static_cast<BOOL>(a.numbers[0]);
            }
            *dbIID = a.id;
            return a.status;
        };
        notes_api.NSFDbGetModifiedNoteTable = [](DBHANDLE handle, WORD mask, TIMEDATE since,
                                                 TIMEDATE*, DHANDLE* table) -> STATUS {
            const Answer a =
                take("NSFDbGetModifiedNoteTable", handle, mask, since.Innards[0], since.Innards[1]);
            put(a, 0, table);
            return a.status;
        };
        notes_api.IDEntries = [](DHANDLE table) -> DWORD {
            DWORD entries = 0;
            put(take("IDEntries", table), 0, &entries);
            return entries;
        };
        notes_api.IDDestroyTable = [](DHANDLE table) {
            return take("IDDestroyTable", table).status;
        };
        notes_api.NSFIsNewBackupNeeded = [](char* path, DWORD span, DWORD* needed) -> STATUS {
            const Answer a = take("NSFIsNewBackupNeeded", path, span);
            put(a, 0, needed);
            return a.status;
        };
    }

    void installNotes() {
        notes_api.NSFDbIDGet = [](DBHANDLE handle, DBID* id) -> STATUS {
            const Answer a = take("NSFDbIDGet", handle);
            *id = {{handle, handle}};
            return a.status;
        };
        notes_api.NSFTakeDatabaseOffline = [](char* path, DWORD wait, DWORD options) {
            return take("NSFTakeDatabaseOffline", path, wait, options).status;
        };
        notes_api.NSFBringDatabaseOnline = [](char* path, DWORD options) {
            return take("NSFBringDatabaseOnline", path, options).status;
        };
        notes_api.NSFRecoverDatabases = [](char* names, LOGRESTORECALLBACKFUNCTION callback,
                                           DWORD flags, WORD* index, TIMEDATE* time) -> STATUS {
            std::string list;
            for (const char* name = names; *name != '\0'; name += std::strlen(name) + 1) {
                list += (list.empty() ? "" : ",") + std::string(name);
            }
            const Answer a = take("NSFRecoverDatabases", list, flags,
                                  time == nullptr ? "end"
                                                  : std::to_string(time->Innards[0]) + ":" +
                                                        std::to_string(time->Innards[1]));
            if (!a.numbers.empty()) {
                *index = static_cast<WORD>(a.numbers[0]);
            }
            // Text: the log that the server asks for; it goes on only with one that it gets.
            char path[1028] = "";
            a.text.copy(path, sizeof path - 1);
            UNIVERSALNOTEID id = a.id;
            return a.text.empty() || callback(&id, 7, path) == 0 ? a.status : STATUS{5000};
        };
        notes_api.NSFDbCopyNote =
            [](DBHANDLE source, DBID* sourceId, DBID* sourceReplica, NOTEID note, DBHANDLE target,
               DBID* targetId, DBID* targetReplica, NOTEID* newNote, WORD* noteClass) -> STATUS {
            // The identities are those of the handles; nothing else is given or asked for.
            EXPECT_EQ(sourceId->Innards[0], source);
            EXPECT_EQ(targetId->Innards[0], target);
            EXPECT_TRUE(sourceReplica == nullptr && targetReplica == nullptr);
            EXPECT_TRUE(newNote == nullptr && noteClass == nullptr);
            return take("NSFDbCopyNote", source, note, target).status;
        };
        notes_api.NSFNoteDelete = [](DBHANDLE handle, NOTEID note, WORD flags) {
            return take("NSFNoteDelete", handle, note, flags).status;
        };
        notes_api.SECKFMGetUserName = [](char* name) -> STATUS {
            const Answer a = take("SECKFMGetUserName");
            std::memcpy(name, a.text.data(), a.text.size()); // as long as it is, unterminated
            return a.status;
        };
        notes_api.NSFDbGetUnreadNoteTable = [](DBHANDLE handle, char* user, WORD length,
                                               BOOL create, DHANDLE* table) -> STATUS {
            const Answer a =
                take("NSFDbGetUnreadNoteTable", handle, std::string(user, length), create);
            put(a, 0, table);
            return a.status;
        };
        notes_api.NSFDbUpdateUnread = [](DBHANDLE handle, DHANDLE table) {
            return take("NSFDbUpdateUnread", handle, table).status;
        };
        notes_api.NSFDbSetUnreadNoteTable = [](DBHANDLE handle, char* user, WORD length, BOOL flush,
                                               DHANDLE former, DHANDLE table) {
            return take("NSFDbSetUnreadNoteTable", handle, std::string(user, length), flush, former,
                        table)
                .status;
        };
        notes_api.IDTableCopy = [](DHANDLE table, DHANDLE* copy) -> STATUS {
            const Answer a = take("IDTableCopy", table);
            put(a, 0, copy);
            return a.status;
        };
        notes_api.IDScan = [](DHANDLE table, BOOL first, NOTEID* id) -> BOOL {
            const auto& ids = s_current->tables[table];
            s_current->m_scanned = first ? 0 : s_current->m_scanned + 1;
            if (s_current->m_scanned >= ids.size()) {
                return 0;
            }
            *id = ids[s_current->m_scanned];
            return 1;
        };
        notes_api.IDIsPresent = [](DHANDLE table, NOTEID id) -> BOOL {
            const auto& ids = s_current->tables[table];
            return std::find(ids.begin(), ids.end(), id) != ids.end();
        };
        notes_api.IDInsert = [](DHANDLE table, NOTEID id, BOOL* inserted) -> STATUS {
            EXPECT_EQ(inserted, nullptr);
            const Answer a = take("IDInsert", table, id);
            if (a.status == 0) {
                s_current->tables[table].push_back(id);
            }
            return a.status;
        };
    }

    void installBackup() {
        notes_api.NSFBackupStart = [](DBHANDLE handle, DWORD flags, DHANDLE* context, DWORD* low,
                                      DWORD* high) -> STATUS {
            const Answer a = take("NSFBackupStart", handle, flags);
            put(a, 0, context);
            put(a, 1, low);
            put(a, 2, high);
            return a.status;
        };
        notes_api.NSFBackupSetHighWaterMark = [](DBHANDLE handle, DHANDLE context, DWORD low,
                                                 DWORD high) {
            return take("NSFBackupSetHighWaterMark", handle, context, low, high).status;
        };
        notes_api.NSFBackupStop = [](DBHANDLE handle, DHANDLE context) {
            return take("NSFBackupStop", handle, context).status;
        };
        notes_api.NSFBackupGetChangeInfoSize = [](DBHANDLE handle, DHANDLE context, DWORD flags,
                                                  DWORD* low, DWORD* high) -> STATUS {
            const Answer a = take("NSFBackupGetChangeInfoSize", handle, context, flags);
            put(a, 0, low);
            put(a, 1, high);
            return a.status;
        };
        notes_api.NSFBackupGetNextChangeInfo = [](DBHANDLE handle, DHANDLE context, DWORD flags,
                                                  BYTE* buffer, DWORD size,
                                                  DWORD* filled) -> STATUS {
            EXPECT_EQ(buffer, s_current->memory.data());
            const Answer a = take("NSFBackupGetNextChangeInfo", handle, context, flags, size);
            std::memcpy(buffer, a.text.data(), a.text.size());
            *filled = static_cast<DWORD>(a.text.size());
            return a.status;
        };
        notes_api.NSFBackupStartApplyChangeInfo = [](DHANDLE* context, char* path, DWORD flags,
                                                     DWORD low, DWORD high) -> STATUS {
            const Answer a = take("NSFBackupStartApplyChangeInfo", path, flags, low, high);
            put(a, 0, context);
            return a.status;
        };
        notes_api.NSFBackupApplyNextChangeInfo = [](DHANDLE context, DWORD flags, BYTE* buffer,
                                                    DWORD size) -> STATUS {
            return take("NSFBackupApplyNextChangeInfo", context, flags, size,
                        "[" + std::string(buffer, buffer + size) + "]")
                .status;
        };
        notes_api.NSFBackupEndApplyChangeInfo = [](DHANDLE context, DWORD flags) {
            return take("NSFBackupEndApplyChangeInfo", context, flags).status;
        };
        notes_api.NSFBackupEnd = [](DBHANDLE handle, DHANDLE context, DWORD options) {
            return take("NSFBackupEnd", handle, context, options).status;
        };
    }

    void installLogs() {
        notes_api.NSFGetTransLogStyle = [](WORD* style) -> STATUS {
            const Answer a = take("NSFGetTransLogStyle");
            if (!a.numbers.empty()) {
                *style = static_cast<WORD>(a.numbers[0]);
            }
            return a.status;
        };
        notes_api.NSFBeginArchivingLogs = [] { return take("NSFBeginArchivingLogs").status; };
        notes_api.NSFEndArchivingLogs = [] { return take("NSFEndArchivingLogs").status; };
        notes_api.NSFGetFirstLogToArchive = [](UNIVERSALNOTEID* id, DWORD* number, char* path) {
            return logToArchive("NSFGetFirstLogToArchive", id, number, path);
        };
        notes_api.NSFGetNextLogToArchive = [](UNIVERSALNOTEID* id, DWORD* number, char* path) {
            return logToArchive("NSFGetNextLogToArchive", id, number, path);
        };
        notes_api.NSFDoneArchivingLog = [](UNIVERSALNOTEID* id, DWORD* number) -> STATUS {
            return take("NSFDoneArchivingLog", id->File.Innards[0], id->Note.Innards[1], *number)
                .status;
        };
    }

    std::map<NotesSlot*, void*> m_former;
    std::vector<Step> m_steps;
    std::size_t m_next = 0;
    std::size_t m_scanned = 0;
    bool m_failed = false;
};
