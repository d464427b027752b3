#include "tests/support/notes_api_fake.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

namespace {

constexpr std::size_t kPathRoom = 1028;
constexpr std::size_t kUserNameRoom = 257;

NotesApiFake* s_fake = nullptr;

// Writes what fits, without a NUL where that fills the buffer, as the server's library does.
WORD put(const std::string& text, char* out, std::size_t size) {
    const std::size_t length = text.copy(out, size);
    if (length < size) {
        out[length] = '\0';
    }
    return static_cast<WORD>(length);
}

template <typename Argument>
void describe(NotesCall& call, const Argument& argument) {
    if constexpr (std::is_same_v<Argument, TIMEDATE>) {
        describe(call, argument.Innards[0]);
        describe(call, argument.Innards[1]);
    } else if constexpr (std::is_integral_v<Argument>) {
        call.numbers.push_back(static_cast<DWORD>(argument));
        call.text += " " + std::to_string(call.numbers.back());
    } else if constexpr (std::is_convertible_v<Argument, std::string>) {
        call.text += " " + std::string(argument);
    }
}

template <typename... Arguments>
NotesAnswer ask(const char* function, const Arguments&... arguments) {
    NotesCall call = {function, {}, function};
    (describe(call, arguments), ...);
    NotesAnswer answer = s_fake->answer(call);
    if (answer.effect) {
        answer.effect();
    }
    return answer;
}

// `next` is the number of the answer's output that is next.
template <typename Argument>
void handOut(const NotesAnswer& answer, std::size_t& next, Argument argument) {
    if constexpr (std::is_same_v<Argument, UNIVERSALNOTEID*>) {
        *argument = answer.id;
    } else if constexpr (std::is_same_v<Argument, DWORD*> || std::is_same_v<Argument, WORD*> ||
                         std::is_same_v<Argument, BOOL*>) {
        if (next < answer.numbers.size()) {
            *argument = static_cast<std::remove_pointer_t<Argument>>(answer.numbers[next++]);
        }
    }
}

template <typename... Arguments>
void handOutAll(const NotesAnswer& answer, Arguments... arguments) {
    [[maybe_unused]] std::size_t next = 0;
    (handOut(answer, next, arguments), ...);
}

// A function whose signature says all: numbers, times and texts go in, through pointers to numbers
// and to identities they come out. What else there are pointers to is left alone.
template <auto Slot, typename Result, typename... Arguments>
void fillSlot(NotesFunction<Result(Arguments...)>& slot) {
    slot = [](Arguments... arguments) -> Result {
        const NotesAnswer answer = ask((notes_api.*Slot).name(), arguments...);
        handOutAll(answer, arguments...);
        if constexpr (std::is_same_v<Result, BOOL>) {
            return answer.status == kNotesNoError;
        } else if constexpr (std::is_pointer_v<Result>) {
            return nullptr;
        } else if constexpr (!std::is_void_v<Result>) {
            return answer.status;
        }
    };
}

// Every slot, so that one without a function of its own below has this.
void fillBySignature() {
#define NOTES_FUNCTION(result, name, parameters, handles) fillSlot<&NotesApi::name>(notes_api.name);
#include "notes_api/functions.h"
}

void fillRuntime() {
    notes_api.NotesInitExtended = [](int argc, char** argv) -> STATUS {
        std::string list;
        for (int i = 0; i < argc; ++i) {
            list += (i == 0 ? "" : " ") + std::string(argv[i]);
        }
        return ask("NotesInitExtended", argc, list).status;
    };
    notes_api.OSGetDataDirectory = [](char* path) -> WORD {
        return put(ask("OSGetDataDirectory").text, path, kPathRoom);
    };
    notes_api.OSGetEnvironmentString = [](const char* name, char* value, WORD size) -> BOOL {
        return put(ask("OSGetEnvironmentString", name, size).text, value, size) != 0;
    };
    notes_api.OSLoadString = [](HMODULE module, STATUS status, char* text, WORD size) -> WORD {
        return put(module == 0 ? s_fake->textOf(status) : "of a module", text, size);
    };
    notes_api.OSTranslate = [](WORD mode, const char* in, WORD length, char* out,
                               WORD size) -> WORD {
        const std::string text = length == kTranslateWholeString ? in : std::string(in, length);
        return put(s_fake->translated(mode, text), out, size);
    };
    notes_api.OSLockObject = [](DHANDLE handle) -> void* {
        const bool locked = ask("OSLockObject", handle).status == kNotesNoError;
        return locked ? s_fake->memory[handle].data() : nullptr;
    };
    notes_api.SECKFMGetUserName = [](char* name) -> STATUS {
        const NotesAnswer answer = ask("SECKFMGetUserName");
        put(answer.text, name, kUserNameRoom);
        return answer.status;
    };
}

void fillTimes() {
    notes_api.OSGetIntlSettings = [](INTLFORMAT* settings, WORD size) {
        ask("OSGetIntlSettings", size);
        std::memcpy(settings, &s_fake->settings, std::min<std::size_t>(size, sizeof *settings));
    };
    notes_api.TimeConstant = [](WORD type, TIMEDATE* time) {
        *time = type == kTimeWildcard ? TIMEDATE{{0xFFFFFFFF, 0}} : TIMEDATE{};
    };
    notes_api.ConvertTextToTIMEDATE = [](const void* settings, const void* format, char** text,
                                         WORD length, TIMEDATE* time) -> STATUS {
        std::string how = "defaults";
        if (settings != nullptr && format != nullptr) {
            const auto* parts = static_cast<const TFMT*>(format);
            how = std::to_string(static_cast<const INTLFORMAT*>(settings)->Flags);
            for (const int part : {parts->Date, parts->Time, parts->Zone, parts->Structure}) {
                how += " " + std::to_string(part);
            }
        }
        const std::string value(*text, strnlen(*text, length));
        *text += value.size();
        const NotesAnswer answer = ask("ConvertTextToTIMEDATE", how, value);
        handOutAll(answer, &time->Innards[0], &time->Innards[1]);
        return answer.status;
    };
    // A number in the answer is the length that is told instead of the text's own.
    notes_api.ConvertTIMEDATEToText = [](const void*, const void*, const TIMEDATE* time, char* text,
                                         WORD size, WORD* length) -> STATUS {
        const NotesAnswer answer = ask("ConvertTIMEDATEToText", *time, size);
        *length = put(answer.text, text, size);
        handOutAll(answer, length);
        return answer.status;
    };
}

void fillTables() {
    notes_api.IDEntries = [](DHANDLE table) -> DWORD {
        ask("IDEntries", table);
        return static_cast<DWORD>(s_fake->tables[table].size());
    };
    notes_api.IDScan = [](DHANDLE table, BOOL first, NOTEID* id) -> BOOL {
        ask("IDScan", table);
        const std::vector<NOTEID>& ids = s_fake->tables[table];
        s_fake->scanned = first != 0 ? 0 : s_fake->scanned + 1;
        if (s_fake->scanned >= ids.size()) {
            return 0;
        }
        *id = ids[s_fake->scanned];
        return 1;
    };
    notes_api.IDIsPresent = [](DHANDLE table, NOTEID id) -> BOOL {
        ask("IDIsPresent", table);
        const std::vector<NOTEID>& ids = s_fake->tables[table];
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    };
    notes_api.IDInsert = [](DHANDLE table, NOTEID id, BOOL*) -> STATUS {
        const STATUS status = ask("IDInsert", table, id).status;
        if (status == kNotesNoError) {
            s_fake->tables[table].push_back(id);
        }
        return status;
    };
}

void fillBackup() {
    notes_api.NSFBackupGetNextChangeInfo = [](DBHANDLE database, DHANDLE context, DWORD flags,
                                              BYTE* buffer, DWORD size, DWORD* filled) -> STATUS {
        const NotesAnswer answer =
            ask("NSFBackupGetNextChangeInfo", database, context, flags, size);
        *filled = static_cast<DWORD>(answer.text.size());
        std::memcpy(buffer, answer.text.data(), answer.text.size());
        return answer.status;
    };
    notes_api.NSFBackupApplyNextChangeInfo = [](DHANDLE context, DWORD flags, BYTE* buffer,
                                                DWORD size) -> STATUS {
        const std::string changes(buffer, buffer + size);
        return ask("NSFBackupApplyNextChangeInfo", context, flags, "[" + changes + "]").status;
    };
    // The server asks for one log if the answer has a second number, the log's; its path is the
    // text, nullptr without one. The recovery goes on whatever it gets.
    notes_api.NSFRecoverDatabases = [](char* names, LOGRESTORECALLBACKFUNCTION askForLog,
                                       DWORD flags, WORD* index, TIMEDATE* time) -> STATUS {
        std::string list;
        for (const char* name = names; *name != '\0'; name += std::strlen(name) + 1) {
            list += (list.empty() ? "" : ",") + std::string(name);
        }
        const std::string end = time == nullptr ? "end"
                                                : std::to_string(time->Innards[0]) + ":" +
                                                      std::to_string(time->Innards[1]);
        NotesAnswer answer = ask("NSFRecoverDatabases", list, flags, end);
        std::size_t next = 0;
        handOut(answer, next, index);
        if (next < answer.numbers.size()) {
            askForLog(&answer.id, answer.numbers[next],
                      answer.text.empty() ? nullptr : answer.text.data());
        }
        return answer.status;
    };
}

// `Slot` is one of the two functions that name a log.
template <auto Slot>
void fillLogSlot() {
    notes_api.*Slot = [](UNIVERSALNOTEID* id, DWORD* number, char* path) -> STATUS {
        const NotesAnswer answer = ask((notes_api.*Slot).name());
        handOutAll(answer, id, number);
        put(answer.text, path, kPathRoom);
        return answer.status;
    };
}

void fillLogs() {
    fillLogSlot<&NotesApi::NSFGetFirstLogToArchive>();
    fillLogSlot<&NotesApi::NSFGetNextLogToArchive>();
    notes_api.NSFDoneArchivingLog = [](UNIVERSALNOTEID* id, DWORD* number) -> STATUS {
        return ask("NSFDoneArchivingLog", id->File.Innards[0], id->Note.Innards[1], *number).status;
    };
}

} // namespace

NotesApiFake::NotesApiFake() {
    s_fake = this;
    fillBySignature();
    fillRuntime();
    fillTimes();
    fillTables();
    fillBackup();
    fillLogs();
}

NotesApiFake::~NotesApiFake() {
    s_fake = nullptr;
    for (NotesSlot* slot = notes_api.first; slot != nullptr; slot = slot->next()) {
        slot->setAddress(nullptr);
    }
}
