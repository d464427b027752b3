// The runtime, its texts, times and memory.
#include "notes_simulator/api_call.h"
#include "notes_simulator/notes_simulator.h"
#include "notes_simulator/recovery_mark.h"
#include "notes_simulator/text_translation.h"
#include "notes_simulator/times.h"
#include "notes_simulator/transaction.h"
#include "notes_simulator/vfs_shim.h"

#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace {

constexpr WORD kUpToNul = 0xFFFF;
constexpr WORD kMonthDayYear = 0x0020;
constexpr WORD kDayMonthYear = 0x0040;
constexpr WORD kYearMonthDay = 0x0080;

static_assert(sizeof(INTLFORMAT) == 140);
static_assert(sizeof(UNIVERSALNOTEID) == 16);
static_assert(sizeof(TFMT) == 4);

int g_companions = 0;

int noteCompanion(dl_phdr_info* info, std::size_t, void*) {
    const std::string name = fs::path(info->dlpi_name).filename().string();
    g_companions |= name == "libndgts.so" ? 1 : 0;
    g_companions |= name == "libxmlproc.so" ? 2 : 0;
    return 0;
}

// Which companions were loaded before this library can only be told at its own load.
__attribute__((constructor)) void noteCompanions() {
    dl_iterate_phdr(noteCompanion, nullptr);
}

std::string argumentList(int argc, char** argv) {
    std::string text = std::to_string(argc);
    for (int i = 0; argv != nullptr && i < argc; ++i) {
        text += ", " + quoted(argv[i]);
    }
    return text;
}

fs::path findNotesIni(int argc, char** argv) {
    for (int i = 0; argv != nullptr && i < argc; ++i) {
        if (argv[i] != nullptr && argv[i][0] == '=') {
            return argv[i] + 1;
        }
    }
    std::error_code error;
    if (fs::exists("notes.ini", error)) {
        return "notes.ini";
    }
    const char* path = std::getenv("PATH");
    std::string_view left = path == nullptr ? "" : path;
    while (!left.empty()) {
        const auto colon = left.find(':');
        const fs::path candidate = fs::path(left.substr(0, colon)) / "notes.ini";
        if (fs::exists(candidate, error)) {
            return candidate;
        }
        left.remove_prefix(colon == std::string_view::npos ? left.size() : colon + 1);
    }
    throw StatusError(kInvalidDirectory, "no notes.ini in the current directory or in PATH");
}

/// Ends the contexts that this process opened and forgets every handle.
void closeEverything(Process& self) {
    if (self.server) {
        for (const auto& [handle, backup] : self.backups.all()) {
            try {
                if (backup->own) {
                    endBackup(*self.server, backup->key, backup->id, false);
                }
            } catch (const StatusError&) {
                // Somebody else has ended it.
            }
        }
    }
    self.backups.clear();
    self.applying.clear();
    self.databases.clear();
    self.tables.clear();
    self.memory.clear();
}

/// Copies text into a buffer of a known size, cut and terminated. Returns the length.
WORD copyText(const std::string& text, char* buffer, WORD size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t length = std::min<std::size_t>(text.size(), size - 1U);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
    return static_cast<WORD>(length);
}

void setField(char* field, std::size_t size, const std::string& text) {
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

INTLFORMAT serverSettings() {
    INTLFORMAT format = {};
    std::string order = "MDY";
    std::string date = "/";
    std::string time = ":";
    if (const auto& server = process().server) {
        order = server->ini.get("SimDateOrder").value_or(order);
        date = server->ini.get("SimDateSeparator").value_or(date);
        time = server->ini.get("SimTimeSeparator").value_or(time);
    }
    format.Flags = kMonthDayYear;
    if (order == "DMY") {
        format.Flags = kDayMonthYear;
    } else if (order == "YMD") {
        format.Flags = kYearMonthDay;
    }
    format.CurrencyDigits = 2;
    format.Length = sizeof format;
    setField(format.AMString, sizeof format.AMString, "AM");
    setField(format.PMString, sizeof format.PMString, "PM");
    setField(format.CurrencyString, sizeof format.CurrencyString, "$");
    setField(format.ThousandString, sizeof format.ThousandString, ",");
    setField(format.DecimalString, sizeof format.DecimalString, ".");
    setField(format.DateString, sizeof format.DateString, date);
    setField(format.TimeString, sizeof format.TimeString, time);
    setField(format.YesterdayString, sizeof format.YesterdayString, "Yesterday");
    setField(format.TodayString, sizeof format.TodayString, "Today");
    setField(format.TomorrowString, sizeof format.TomorrowString, "Tomorrow");
    return format;
}

std::string field(const char* text, std::size_t size) {
    return {text, ::strnlen(text, size)};
}

DateFormat dateFormat(const void* settings) {
    DateFormat format;
    if (const auto& server = process().server) {
        format.zone = server->zone;
    }
    if (settings == nullptr) {
        return format;
    }
    INTLFORMAT intl = {};
    std::memcpy(&intl, settings, sizeof intl);
    if ((intl.Flags & kDayMonthYear) != 0) {
        format.order = DateFormat::Order::kDayMonthYear;
    } else if ((intl.Flags & kYearMonthDay) != 0) {
        format.order = DateFormat::Order::kYearMonthDay;
    }
    format.dateSeparator = field(intl.DateString, sizeof intl.DateString);
    format.timeSeparator = field(intl.TimeString, sizeof intl.TimeString);
    return format;
}

} // namespace

STATUS NotesInitExtended(int argc, char** argv) {
    return statusCall("NotesInitExtended", argumentList(argc, argv), [&](ApiCall& call) -> Status {
        if (!readFaultEnvironment()) {
            throw StatusError(kBadFaultText, "");
        }
        Process& self = process();
        const fs::path ini = findNotesIni(argc, argv);
        const Server server = openServerByIni(ini);
        closeEverything(self);
        self.server = server;
        self.lastServer = server;
        self.terminated = false;
        self.archivingDenied = false;
        setRecordingServer(server);
        // A recovery that another process is making holds the lock while it has a journal.
        const ServerLock lock(server);
        settleInterruptedRecoveries(server, lock);
        rollBackLeftoverJournals(server);
        call.output("companions", static_cast<std::uint64_t>(g_companions));
        call.output("data", server.data.c_str());
        return kOk;
    });
}

void NotesTerm(void) {
    valueCall("NotesTerm", "", 0, [&](ApiCall&) {
        Process& self = process();
        closeEverything(self);
        self.server.reset();
        self.terminated = true;
        clearRecordingServer();
        return 0;
    });
    journalSummary();
}

WORD OSGetDataDirectory(char* retPathName) {
    return valueCall("OSGetDataDirectory", "", WORD{0}, [&](ApiCall& call) -> WORD {
        require(retPathName);
        const Server& server = runningServer();
        const std::string data = server.ini.get("SimDirectory").value_or(server.data.string());
        call.output("path", data.c_str());
        return copyText(data, retPathName, 1028);
    });
}

BOOL OSGetEnvironmentString(const char* VariableName, char* retValueBuffer, WORD BufferLength) {
    return valueCall("OSGetEnvironmentString", quoted(VariableName), BOOL{0},
                     [&](ApiCall& call) -> BOOL {
                         require(VariableName);
                         require(retValueBuffer);
                         const auto value = runningServer().ini.get(VariableName);
                         if (!value || value->size() >= BufferLength) {
                             return 0;
                         }
                         copyText(*value, retValueBuffer, BufferLength);
                         call.output("value", value->c_str());
                         return 1;
                     });
}

WORD OSLoadString(HMODULE hModule, STATUS StringCode, char* retBuffer, WORD BufferLength) {
    return valueCall("OSLoadString", std::to_string(hModule) + ", " + std::to_string(StringCode),
                     WORD{0}, [&](ApiCall&) -> WORD {
                         require(retBuffer);
                         const Status status = StringCode & 0x3FFF;
                         return copyText(statusText(status), retBuffer, BufferLength);
                     });
}

WORD OSTranslate(WORD TranslateMode, const char* In, WORD InLength, char* Out, WORD OutLength) {
    const std::string arguments =
        std::to_string(TranslateMode) + ", " +
        quoted(In == nullptr || InLength == kUpToNul ? In : std::string(In, InLength).c_str()) +
        ", " + std::to_string(InLength) + ", " + std::to_string(OutLength);
    return valueCall("OSTranslate", arguments, WORD{0}, [&](ApiCall& call) -> WORD {
        require(In);
        require(Out);
        const bool terminated = InLength == kUpToNul;
        if ((TranslateMode != 0 && TranslateMode != 1 && TranslateMode != 22) || OutLength == 0) {
            return 0;
        }
        const std::size_t limit = terminated ? OutLength - 1U : OutLength;
        const std::string_view in(In, terminated ? std::strlen(In) : InLength);
        const auto& server = process().server;
        const bool ascii =
            std::all_of(in.begin(), in.end(), [](char c) { return static_cast<BYTE>(c) < 0x80; });
        const bool native = static_cast<Translation>(TranslateMode) != Translation::kLmbcsToUtf8;
        if (server && server->moods.has(Mood::kLocale) && native && !ascii && !nativeIsUtf8()) {
            *Out = '\0';
            return 0;
        }
        const std::string out = translateText(static_cast<Translation>(TranslateMode), in, limit);
        std::memmove(Out, out.data(), out.size()); // callers may convert in place
        if (terminated) {
            Out[out.size()] = '\0';
        }
        call.output("out", out.c_str());
        return static_cast<WORD>(out.size());
    });
}

STATUS OSMemAlloc(WORD BlkType, DWORD dwSize, DHANDLE* retHandle) {
    return statusCall("OSMemAlloc", std::to_string(BlkType) + ", " + std::to_string(dwSize),
                      [&](ApiCall& call) -> Status {
                          require(retHandle);
                          *retHandle = process().memory.add(std::make_unique<MemoryObject>(dwSize));
                          call.output("handle", *retHandle);
                          return kOk;
                      });
}

void* OSLockObject(DHANDLE Handle) {
    return valueCall("OSLockObject", std::to_string(Handle), static_cast<void*>(nullptr),
                     [&](ApiCall&) -> void* {
                         MemoryObject& object = process().memory.get(Handle);
                         ++object.locks;
                         return object.bytes.data();
                     });
}

BOOL OSUnlockObject(DHANDLE Handle) {
    return valueCall("OSUnlockObject", std::to_string(Handle), BOOL{0}, [&](ApiCall&) -> BOOL {
        MemoryObject& object = process().memory.get(Handle);
        if (object.locks == 0) {
            return 0;
        }
        --object.locks;
        return 1;
    });
}

STATUS OSMemFree(DHANDLE Handle) {
    return statusCall("OSMemFree", std::to_string(Handle), [&](ApiCall&) -> Status {
        process().memory.take(Handle);
        return kOk;
    });
}

void OSGetIntlSettings(INTLFORMAT* retIntlFormat, WORD BufferSize) {
    valueCall("OSGetIntlSettings", std::to_string(BufferSize), 0, [&](ApiCall&) {
        require(retIntlFormat);
        const INTLFORMAT format = serverSettings();
        std::memcpy(retIntlFormat, &format, std::min<std::size_t>(BufferSize, sizeof format));
        return 0;
    });
}

STATUS ConvertTextToTIMEDATE(const void* IntlFormat, const void*, char** Text, WORD MaxLength,
                             TIMEDATE* retTIMEDATE) {
    const std::string text = Text == nullptr || *Text == nullptr ? "" : field(*Text, MaxLength);
    return statusCall("ConvertTextToTIMEDATE", quoted(text.c_str()), [&](ApiCall& call) -> Status {
        require(Text);
        require(*Text);
        require(retTIMEDATE);
        std::size_t used = 0;
        const auto time = parseTime(text, dateFormat(IntlFormat), &used);
        if (!time) {
            throw StatusError(kBadTimeText, text);
        }
        const TimeWords words = toTimeWords(*time);
        *retTIMEDATE = {{words.ticks, words.day}};
        *Text += used;
        call.output("time", displayTime(*time).c_str());
        return kOk;
    });
}

STATUS ConvertTIMEDATEToText(const void* IntlFormat, const void*, const TIMEDATE* InputTime,
                             char* retTextBuffer, WORD TextBufferLength, WORD* retTextLength) {
    return statusCall("ConvertTIMEDATEToText", "", [&](ApiCall& call) -> Status {
        require(InputTime);
        require(retTextBuffer);
        require(retTextLength);
        *retTextLength = 0;
        const std::int64_t time = fromTimeWords({InputTime->Innards[0], InputTime->Innards[1]});
        const std::string text = formatTime(time, dateFormat(IntlFormat));
        if (text.size() > TextBufferLength) {
            throw StatusError(kInvalidArgument, "buffer of " + std::to_string(TextBufferLength));
        }
        std::memcpy(retTextBuffer, text.data(), text.size());
        *retTextLength = static_cast<WORD>(text.size());
        call.output("text", text.c_str());
        return kOk;
    });
}

void TimeConstant(WORD TimeConstantType, TIMEDATE* td) {
    valueCall("TimeConstant", std::to_string(TimeConstantType), 0, [&](ApiCall&) {
        require(td);
        if (TimeConstantType > 2) {
            throw StatusError(kInvalidArgument, "");
        }
        *td = TimeConstantType == 1 ? TIMEDATE{{0xFFFFFFFF, 0x00FFFFFF}} : TIMEDATE{{0, 0}};
        return 0;
    });
}

int NotesSimSetFaults(const char* text) {
    return text != nullptr && setFaults(text) ? 0 : 1;
}

unsigned NotesSimFaultsFired(void) {
    return faultsFired();
}

unsigned NotesSimOutstanding(int kind) {
    Process& self = process();
    const std::lock_guard guard(self.mutex);
    const auto count = [](const auto& table) { return static_cast<unsigned>(table.size()); };
    switch (kind) {
    case NOTES_SIM_DATABASES:
        return count(self.databases);
    case NOTES_SIM_BACKUP_CONTEXTS:
        return static_cast<unsigned>(
            std::count_if(self.backups.all().begin(), self.backups.all().end(),
                          [](const auto& entry) { return entry.second->own; }));
    case NOTES_SIM_APPLY_CONTEXTS:
        return count(self.applying);
    case NOTES_SIM_ID_TABLES:
        return count(self.tables);
    case NOTES_SIM_MEMORY_OBJECTS:
        return count(self.memory);
    case NOTES_SIM_LOCKED_OBJECTS:
        return static_cast<unsigned>(
            std::count_if(self.memory.all().begin(), self.memory.all().end(),
                          [](const auto& entry) { return entry.second->locks > 0; }));
    default:
        return 0;
    }
}

void NotesSimAbandon(void) {
    Process& self = process();
    const std::lock_guard guard(self.mutex);
    self.backups.clear();
    closeEverything(self);
}

int NotesSimCompanions(void) {
    return g_companions;
}
