#include "qrt_lotus_notes/qrtln_u/control_variables.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <strings.h>

#include "common/bounded_text.h"
#include "common/cm_strptime.h"
#include "common/file_stream.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/argument_paths.h"
#include "qrt_lotus_notes/qrtln_u/local_time.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"

namespace {

// What one run of ProcessCtrlVars carries from variable to variable.
struct ArgumentState {
    char szFileArgument[kPathSize]; // never cleared between two arguments, see argument_paths
    int iArguments;
    RecoveryChoices sRollForward; // what ROLLFORWARD chooses, should this be a recovery
    bool bRollForwardGiven;
    bool bRefused; // a value was reported: the operation must not start
};

// Copies a value into its field; what does not fit is cut, and said so.
template <std::size_t size>
void setField(char (&field)[size], const char* name, const char* value) {
    if (!copyText(field, value)) {
        DB_TraceExt("ProcessCtrlVars(): Value of %s is longer than %d bytes and is cut to [%s].",
                    name, static_cast<int>(size - 1), field);
    }
}

bool isYes(const char* value) {
    return std::strncmp(value, "YES", 3) == 0;
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

void setSinceTime(const char* value) {
    setField(g_sQRTLN_Global.szDB_SinceTime, "SNC_TIME", value);
    g_sQRTLN_Global.tSinceTime = 0;
    struct tm since = {};
    if (cm_strptime(value, "%Y%m%d%H%M%S", &since) == nullptr) {
        DB_TraceExt("ProcessCtrlVars(): Could not convert [%s] to a valid tm structure.", value);
        return;
    }
    // Where the clock repeats or skips it, the earlier moment: nothing that changed is passed over.
    const time_t seconds = earliestMomentOf(since);
    if (seconds == static_cast<time_t>(-1)) {
        DB_TraceExt("ProcessCtrlVars(): Could not convert [%s] to a valid time_t calendar time.",
                    value);
        return;
    }
    g_sQRTLN_Global.tSinceTime = seconds;
}

// The text of the first `option` in the command line: behind blanks and quotes up to the next
// quote, or to the end where the closing one is missing. False when the option is not there.
bool findOption(const char* szInfo, const char* option, std::string& text) {
    const char* start = std::strstr(szInfo, option);
    if (start == nullptr) {
        return false;
    }
    start += std::strlen(option);
    start += std::strspn(start, " \"");
    text.assign(start, std::strcspn(start, "\""));
    return true;
}

void setRelocation(const char* szInfo) {
    std::string text;
    if (!findOption(szInfo, "-R", text)) {
        return;
    }
    char(&szRelocationDir)[kPathSize] = g_sQRTLN_Global.szRelocationDir;
    if (text == "NOTES" || strcasecmp(text.c_str(), "all") == 0 || text == "/" || text == "\\") {
        szRelocationDir[0] = '\0';
        DB_TraceExt("ProcessCtrlVars(): Got [%s] set Relocation Directory to [%s].", text.c_str(),
                    szRelocationDir);
        return;
    }
    setField(szRelocationDir, "INFO -R", text.c_str());
    DB_TraceExt("ProcessCtrlVars(): Relocation Directory = [%s].", szRelocationDir);
}

void setPlainRestore(const char* szInfo) {
    std::string text;
    if (!findOption(szInfo, "-o", text)) {
        return;
    }
    // ",p" is tested as a mere part of the text: any later option of the list that begins with "p"
    // selects a plain restore, as clients know it.
    if (text == "plain" || text == "p" || contains(text, ",p")) {
        g_sQRTLN_Global.bPlainRestore = TRUE;
        DB_TraceExt("ProcessCtrlVars(): PLAIN RESTORE operation.");
    }
}

void setDocumentRestore(const char* szInfo) {
    // The order decides: a "chgd" that stands before "deld" does not give the position.
    const char* keyword = nullptr;
    for (const char* name : {"deld", "chgd", "DELD", "CHGD"}) {
        keyword = std::strstr(szInfo, name);
        if (keyword != nullptr) {
            break;
        }
    }
    if (keyword == nullptr) {
        return;
    }
    const bool bDeleted =
        std::strstr(szInfo, "deld") != nullptr || std::strstr(szInfo, "DELD") != nullptr;
    g_sQRTLN_Global.LNDocRecoveryType = bDeleted ? LNDocRecoveryType_del : LNDocRecoveryType_chg;

    char(&szPointInTime)[sizeof g_sQRTLN_Global.szPointInTime] = g_sQRTLN_Global.szPointInTime;
    const std::string text(keyword, std::strcspn(keyword, "\""));
    if (const std::size_t equals = text.find('='); equals != std::string::npos) {
        setField(szPointInTime, "INFO point in time", text.c_str() + equals + 1);
        return;
    }
    char szDay[12], szMonth[12], szYear[12], szHour[12], szMinute[12];
    szPointInTime[0] = '\0';
    if (getCurrentTime(szDay, szMonth, szYear, szHour, szMinute)) {
        formatText(szPointInTime, sizeof szPointInTime, "%s%s%s%s%s", szYear, szMonth, szDay,
                   szHour, szMinute);
    }
}

void addDatabaseArgument(const char* variable, ArgumentState& state) {
    handleRelativeArguments(variable, state.szFileArgument);
    if (state.szFileArgument[0] != '\0' && pushPath(g_sQRTLN_Global.lhArgumentFileList,
                                                    state.szFileArgument, DB_BACKUP_FILE_TYPE_DB)) {
        ++state.iArguments;
    }
}

// The one variable whose value must be right: a wrong one would recover to a time that nobody
// meant.
void setRollForward(const char* value, ArgumentState& state) {
    if (state.bRollForwardGiven) {
        DB_ErrHandler(0, kErrorKindNone, "ROLLFORWARD is given more than once");
        state.bRefused = true;
        return;
    }
    state.bRollForwardGiven = true;
    if (!readRollForward(value, state.sRollForward)) {
        state.bRefused = true;
    }
}

// One keyword and what its variable does; `value` is the text behind the separator.
struct ControlVariable {
    const char* keyword;
    void (*apply)(const char* variable, const char* value, ArgumentState& state);
};

// In the order in which the keywords are tried.
constexpr ControlVariable kControlVariables[] = {
    {"DB_USER", [](const char*, const char* value,
                   ArgumentState&) { setField(g_sQRTLN_Global.szDB_User, "DB_USER", value); }},
    {"TMP_DIR", [](const char*, const char* value,
                   ArgumentState&) { setField(g_sQRTLN_Global.szTmpDir, "TMP_DIR", value); }},
    {"RECOVERY", [](const char*, const char* value,
                    ArgumentState&) { g_sQRTLN_Global.bRecovery |= isYes(value); }},
    {"NEWDBIID", [](const char*, const char* value,
                    ArgumentState&) { g_sQRTLN_Global.bNewDbiid |= isYes(value); }},
    {"ACTIVATE", [](const char*, const char* value,
                    ArgumentState&) { g_sQRTLN_Global.bActivate |= isYes(value); }},
    {"NOTESINI",
     [](const char*, const char* value, ArgumentState&) {
         setField(g_sQRTLN_Global.szDB_Notesini, "NOTESINI", value);
     }},
    {"SNC_TIME", [](const char*, const char* value, ArgumentState&) { setSinceTime(value); }},
    // Three independent searches in the client's command line.
    {"INFO",
     [](const char*, const char* value, ArgumentState&) {
         setRelocation(value);
         setPlainRestore(value);
         setDocumentRestore(value);
     }},
    {"DATABASE", [](const char* variable, const char*,
                    ArgumentState& state) { addDatabaseArgument(variable, state); }},
    {"ROLLFORWARD",
     [](const char*, const char* value, ArgumentState& state) { setRollForward(value, state); }},
};

void applyControlVariable(const char* variable, ArgumentState& state) {
    DB_TraceExt("ProcessCtrlVars(): Processing control argument: %s", variable);
    for (const ControlVariable& known : kControlVariables) {
        const std::size_t length = std::strlen(known.keyword);
        if (std::strncmp(variable, known.keyword, length) == 0) {
            // The separator is never looked at; a variable that ends before it has no value.
            const char* const value = variable + length + (variable[length] == '\0' ? 0 : 1);
            known.apply(variable, value, state);
            return;
        }
    }
    DB_TraceExt("ProcessCtrlVars(): Unrecognizable control variable: %s", variable);
}

// The text stripped and in upper case, for comparisons.
std::string normalized(const char* text) {
    std::string source(text), result(source.size() + 1, '\0');
    str_upper(str_strip(result.data(), source.data()));
    result.resize(std::strlen(result.c_str()));
    return result;
}

} // namespace

int ProcessCtrlVars(char** _cppI_CtrlVars) {
    QRTLN_Global& global = g_sQRTLN_Global;
    // bActivate is not among the defaults: once given it stays for later operations of the process.
    global.bNewDbiid = FALSE;
    global.bRecovery = FALSE;
    global.bPlainRestore = FALSE;
    global.szRelocationDir[0] = '\0';
    global.szTmpDir[0] = '\0';
    global.tSinceTime = 0;
    global.sRecoveryChoices = {};
    copyText(global.szDB_User, "notes");
    global.lhArgumentFileList = CreateFIFOList();
    DB_TraceExt("ProcessCtrlVars(): maximal size %d", static_cast<int>(kPathSize));

    ArgumentState state = {};
    for (char** variable = _cppI_CtrlVars; variable != nullptr && *variable != nullptr;
         ++variable) {
        applyControlVariable(*variable, state);
    }
    if (state.iArguments == 0) {
        DB_ErrHandler(0, kErrorKindNone, "There is no database file arguments");
    }
    if (state.iArguments == 0 || state.bRefused) {
        DestroyFIFOList(global.lhArgumentFileList);
        global.lhArgumentFileList = nullptr;
        return DB_NUM_E_FAILED;
    }
    if (global.eI_OperationType == DB_TYPE_RST && global.bRecovery) {
        global.sRecoveryChoices = state.sRollForward;
    }
    return DB_NUM_I_OK;
}

char* str_upper(char* s) {
    for (char* c = s; *c != '\0'; ++c) {
        *c = static_cast<char>(std::toupper(static_cast<unsigned char>(*c)));
    }
    return s;
}

char* str_strip(char* dst, char* src) {
    std::size_t length = std::strlen(src);
    while (length > 0 && std::strchr(" \t\r\n", src[length - 1]) != nullptr) {
        src[--length] = '\0';
    }
    const std::size_t leading = std::strspn(src, " \t");
    std::memmove(dst, src + leading, length - leading + 1);
    return dst;
}

int ini_get_value(const char* file, const char* section, const char* key, char* value) {
    const FileStream stream(std::fopen(file, "r"));
    if (stream == nullptr) {
        return DB_NUM_E_FAILED;
    }
    char szLine[kMessageSize];
    const auto readLine = [&] {
        return std::fgets(szLine, sizeof szLine, stream.get()) != nullptr;
    };
    if (section != nullptr) {
        const std::string wanted = normalized(section);
        do {
            if (!readLine()) {
                return DB_NUM_E_FAILED;
            }
        } while (std::strchr(szLine, '[') == nullptr || normalized(szLine) != wanted);
    }
    const std::string wanted = normalized(key);
    while (readLine() && std::strchr(szLine, '[') == nullptr) {
        char* const equals = std::strchr(szLine, '=');
        if (equals == nullptr) {
            continue;
        }
        *equals = '\0';
        if (normalized(szLine) == wanted) {
            str_strip(value, equals + 1);
            return DB_NUM_I_OK;
        }
    }
    return DB_NUM_E_FAILED;
}

int SetOsPath(char*) {
    return DB_NUM_I_OK;
}
