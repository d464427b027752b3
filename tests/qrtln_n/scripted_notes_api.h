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
#include <type_traits>
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

inline std::vector<Step> operator+(std::vector<Step> first, const std::vector<Step>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class ScriptedNotesApi {
  public:
    ScriptedNotesApi() {
        s_current = this;
        for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
            m_former[slot] = slot->address();
            slot->setAddress(reinterpret_cast<void*>(&callWithoutScript));
        }
        installPlain();
        installRuntime();
        installDatabases();
        installBackup();
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

    // Functions whose signature says all: numbers, times and texts that go in make the call, what
    // goes out is filled from the answer. An identity of a log or database always goes out; DBIDs
    // are left alone.
    template <auto Slot, typename Result, typename... Arguments>
    static void install(NotesFunction<Result(Arguments...)>& slot) {
        slot = [](Arguments... arguments) -> Result {
            std::ostringstream call;
            call << (notes_api.*Slot).name();
            (describe(call, arguments), ...);
            const Answer a = s_current->answer(call.str());
            [[maybe_unused]] std::size_t next = 0;
            (fill(a, next, arguments), ...);
            if constexpr (std::is_same_v<Result, BOOL>) {
                return a.status == 0;
            } else if constexpr (!std::is_void_v<Result>) {
                return a.status;
            }
        };
    }
    template <auto... Slots>
    static void installAll() {
        (install<Slots>(notes_api.*Slots), ...);
    }
    template <typename Argument>
    static void describe(std::ostream& call, const Argument& argument) {
        using Pointed = std::remove_const_t<std::remove_pointer_t<Argument>>;
        if constexpr (std::is_same_v<Argument, TIMEDATE>) {
            call << ' ' << argument.Innards[0] << ' ' << argument.Innards[1];
        } else if constexpr (!std::is_pointer_v<Argument> || std::is_same_v<Pointed, char>) {
            call << ' ' << argument;
        }
    }
    template <typename Argument>
    static void fill(const Answer& answer, std::size_t& next, Argument argument) {
        if constexpr (std::is_same_v<Argument, UNIVERSALNOTEID*>) {
            *argument = answer.id;
        } else if constexpr (std::is_same_v<Argument, DWORD*> || std::is_same_v<Argument, BOOL*> ||
                             std::is_same_v<Argument, WORD*>) {
            if (next < answer.numbers.size()) {
                *argument = static_cast<std::remove_pointer_t<Argument>>(answer.numbers[next++]);
            }
        }
    }

    static STATUS logToArchive(const char* name, UNIVERSALNOTEID* id, DWORD* number, char* path) {
        const Answer a = take(name);
        std::size_t next = 0;
        fill(a, next, id);
        fill(a, next, number);
        std::strcpy(path, a.text.c_str());
        return a.status;
    }

    void installPlain() {
        installAll<&NotesApi::NotesTerm, &NotesApi::OSMemAlloc, &NotesApi::OSMemFree,
                   &NotesApi::OSUnlockObject, &NotesApi::NSFDbIDGet, &NotesApi::NSFDbCopyNote,
                   &NotesApi::NSFDbOpen, &NotesApi::NSFDbClose, &NotesApi::NSFDbGetLogInfo,
                   &NotesApi::NSFDbGetModifiedNoteTable, &NotesApi::IDDestroyTable,
                   &NotesApi::IDTableCopy, &NotesApi::NSFIsNewBackupNeeded,
                   &NotesApi::NSFTakeDatabaseOffline, &NotesApi::NSFBringDatabaseOnline,
                   &NotesApi::NSFNoteDelete, &NotesApi::NSFDbUpdateUnread,
                   &NotesApi::NSFBackupStart, &NotesApi::NSFBackupSetHighWaterMark,
                   &NotesApi::NSFBackupStop, &NotesApi::NSFBackupGetChangeInfoSize,
                   &NotesApi::NSFBackupStartApplyChangeInfo, &NotesApi::NSFBackupEndApplyChangeInfo,
                   &NotesApi::NSFBackupEnd, &NotesApi::NSFGetTransLogStyle,
                   &NotesApi::NSFBeginArchivingLogs, &NotesApi::NSFEndArchivingLogs>();
    }

    void installRuntime() {
        notes_api.NotesInitExtended = [](int argc, char** argv) -> STATUS {
            std::string list;
            for (int i = 0; i < argc; ++i) {
                list += (i == 0 ? "" : " ") + std::string(argv[i]);
            }
            return take("NotesInitExtended", argc, list).status;
        };
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
        notes_api.OSLockObject = [](DHANDLE handle) -> void* {
            return take("OSLockObject", handle).status == 0 ? s_current->memory.data() : nullptr;
        };
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
            std::size_t next = 0;
            fill(a, next, &time->Innards[0]);
            fill(a, next, &time->Innards[1]);
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
        notes_api.NSFDbGetBuildVersion = [](DBHANDLE, WORD* version) -> STATUS {
            ++s_current->buildVersionCalls;
            *version = 405;
            return 0;
        };
        notes_api.IDEntries = [](DHANDLE table) -> DWORD {
            DWORD entries = 0;
            std::size_t next = 0;
            fill(take("IDEntries", table), next, &entries);
            return entries;
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
        notes_api.SECKFMGetUserName = [](char* name) -> STATUS {
            const Answer a = take("SECKFMGetUserName");
            std::memcpy(name, a.text.data(), a.text.size()); // as long as it is, unterminated
            return a.status;
        };
        notes_api.NSFDbGetUnreadNoteTable = [](DBHANDLE handle, char* user, WORD length,
                                               BOOL create, DHANDLE* table) -> STATUS {
            const Answer a =
                take("NSFDbGetUnreadNoteTable", handle, std::string(user, length), create);
            std::size_t next = 0;
            fill(a, next, table);
            return a.status;
        };
        notes_api.NSFDbSetUnreadNoteTable = [](DBHANDLE handle, char* user, WORD length, BOOL flush,
                                               DHANDLE former, DHANDLE table) {
            return take("NSFDbSetUnreadNoteTable", handle, std::string(user, length), flush, former,
                        table)
                .status;
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
        notes_api.NSFBackupGetNextChangeInfo = [](DBHANDLE handle, DHANDLE context, DWORD flags,
                                                  BYTE* buffer, DWORD size,
                                                  DWORD* filled) -> STATUS {
            EXPECT_EQ(buffer, s_current->memory.data());
            const Answer a = take("NSFBackupGetNextChangeInfo", handle, context, flags, size);
            std::memcpy(buffer, a.text.data(), a.text.size());
            *filled = static_cast<DWORD>(a.text.size());
            return a.status;
        };
        notes_api.NSFBackupApplyNextChangeInfo = [](DHANDLE context, DWORD flags, BYTE* buffer,
                                                    DWORD size) -> STATUS {
            return take("NSFBackupApplyNextChangeInfo", context, flags, size,
                        "[" + std::string(buffer, buffer + size) + "]")
                .status;
        };
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
