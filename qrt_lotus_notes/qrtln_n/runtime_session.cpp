#include "qrt_lotus_notes/qrtln_n/runtime_session.h"

#include <cstdio>
#include <cstdlib>

#include "common/bounded_text.h"
#include "notes_api/notes_api.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_o/file_primitives.h"
#include "qrt_lotus_notes/qrtln_u/control_variables.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

// The notes.ini is looked for once for the process, not again at a later start.
BOOL bCheckDone = FALSE;
char errorApiText[kMessageSize];

const char* environmentText(const char* variable) {
    const char* value = std::getenv(variable);
    return value != nullptr ? value : "(null)";
}

// Tells an administrator on standard error which environment the runtime needs, and what it has.
void writeEnvironmentHelp() {
    std::fprintf(
        stderr,
        "\nEnsure that the following environment variables are set and exported:\n"
        "* LANG environment variable is correctly set to your proper locale, e.g. \"C\"\n"
        "  LANG=\"%s\"\n"
        "* LOTUS is set to your lotus directory, e.g. \"/opt/lotus\"\n"
        "  LOTUS=\"%s\"\n"
        "* Notes_ExecDirectory is set to specify the Notes executable directory, e.g. "
        "\"/opt/lotus/notes/latest/linux\"\n"
        "  Notes_ExecDirectory=\"%s\"\n"
        "* PATH is set to include the following directories:\n"
        "  ** Notes Resource directory, e.g. \"$LOTUS/notes/latest/linux/res[/$LANG]\"\n"
        "  ** Lotus executable directory: $Notes_ExecDirectory\n"
        "  ** Notes data directory (locates notes.ini file), e.g. \"/home/notes/notesdata\"\n"
        "  PATH=\"%s\"\n"
        "* LD_LIBRARY_PATH is set to include the following directory: "
        "$Notes_ExecDirectory and other product library directories\n"
        "  LD_LIBRARY_PATH=\"%s\"\n",
        environmentText("LANG"), environmentText("LOTUS"), environmentText("Notes_ExecDirectory"),
        environmentText("PATH"), environmentText("LD_LIBRARY_PATH"));
}

const char* explainInitStatus(STATUS status) {
    switch (status & kStatusNumberMask) {
    case kNotesAccessDenied:
        return "Access to data denied.";
    case kNotesInvalidDirectory:
        return "Invalid directory name or device not ready.";
    default:
        return "!";
    }
}

// Whether the chosen notes.ini is there; reports when it is not.
bool checkNotesIni() {
    if (bCheckDone) {
        return true;
    }
    const char* file = g_sQRTLN_Global.szDB_Notesini;
    DB_TraceExt("startNotesOperation(): Use notes ini file name [%s]", file);
    if (!SysFileExists(file)) {
        DB_ErrHandler(0, kErrorKindNone, "Notes ini file [%s] does not exist!", file);
        DB_TraceExt("startNotesOperation(): ERROR: Notes ini file [%s] is misssing.", file);
        return false;
    }
    bCheckDone = TRUE;
    return true;
}

// Fills the table of functions; reports once when that fails.
bool loadRuntimeLibrary() {
    const NotesApiLoad load = loadNotesApi();
    if (load.error.empty()) {
        return true;
    }
    DB_ErrHandler(0, kErrorKindNone, "%s", load.error.c_str());
    for (const std::string& name : load.missing) {
        DB_LogExt("startNotesOperation(): the Notes C API lacks %s", name.c_str());
    }
    writeEnvironmentHelp();
    return false;
}

} // namespace

int startNotesOperation() {
    char szExecutable[6] = "qrtln";
    char szNotesini[kPathSize + 1] = ""; // "=" and the longest path
    char* argv[2] = {szExecutable, nullptr};
    int argc = 1;

    // Choose the notes.ini: a leading "=" marks it for the runtime.
    if (g_sQRTLN_Global.szDB_Notesini[0] != '\0') {
        if (!checkNotesIni()) {
            return DB_NUM_E_FAILED;
        }
        formatText(szNotesini, sizeof szNotesini, "=%s", g_sQRTLN_Global.szDB_Notesini);
        argc = 2;
        argv[1] = szNotesini;
    }

    if (!loadRuntimeLibrary()) {
        return DB_NUM_E_FAILED;
    }

    // Readers expect the call with a notes.ini in the log, the one without in the trace.
    if (argc == 2) {
        DB_LogExt("Call NotesInitExtended( %d, %s, %s )", argc, argv[0], argv[1]);
    } else {
        DB_TraceExt("Call NotesInitExtended( %d, %s )", argc, argv[0]);
    }
    const STATUS status = notes_api.NotesInitExtended(argc, argv);
    if (status != kNotesNoError) {
        DB_ErrHandler(0, kErrorKindNone, "Notes API NotesInitExtended() failed: (STATUS 0X%X) %s",
                      static_cast<unsigned>(status), explainInitStatus(status));
        writeEnvironmentHelp();
        return DB_NUM_E_FAILED;
    }
    forgetFileNames();
    g_sQRTLN_Global.bNotesInitialized = TRUE;
    return DB_NUM_I_OK;
}

int terminateNotesOperation() {
    DB_TraceExt("terminateNotesOperation(): Call NotesTerm()");
    if (!g_sQRTLN_Global.bNotesInitialized) {
        reportRuntimeNotInitialized();
        DB_LogExt("Skip NotesTerm()");
        return DB_NUM_E_FAILED;
    }
    DB_LogExt("Call NotesTerm()");
    notes_api.NotesTerm();
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    return DB_NUM_I_OK;
}

int getNotesDirectories(char* cpNotesDataDirectory, char* cpNotesBinDirectory, int iBinDirLength) {
    // The release of the Notes C API whose calls the module makes.
    DB_TraceExt("getNotesDirectories: LN C API Version [%d.%d.%d]", 9, 0, 1);
    if (!g_sQRTLN_Global.bNotesInitialized) {
        // Not run by a test: the entry point has refused already.
        reportRuntimeNotInitialized();
        return DB_NUM_E_FAILED;
    }

    bool found = notes_api.OSGetDataDirectory(cpNotesDataDirectory) != 0;
    if (!found) {
        DB_TraceExt("getNotesDirectories(): Error: Got length 0 for Notes Data Directory");
    } else {
        DB_TraceExt("getNotesDirectories(): got Directory=[%s]", cpNotesDataDirectory);
        found = notes_api.OSGetEnvironmentString("NotesProgram", cpNotesBinDirectory,
                                                 static_cast<WORD>(iBinDirLength));
    }
    if (!found) {
        // One message for either directory: hosts know it.
        DB_ErrHandler(0, kErrorKindNone, "Notes API OSGetDataDirectory() failure");
        return DB_NUM_E_FAILED;
    }
    DB_TraceExt("getNotesDirectories(): got NotesProgram=[%s]", cpNotesBinDirectory);
    SetOsPath(cpNotesDataDirectory);
    SetOsPath(cpNotesBinDirectory);
    return DB_NUM_I_OK;
}

char* getLotusNotesApiError(int apiError, BOOL bLog) {
    const STATUS number = static_cast<STATUS>(apiError & kStatusNumberMask);
    errorApiText[0] = '\0';
    if (isNotesApiLoaded()) {
        notes_api.OSLoadString(0, number, errorApiText, sizeof errorApiText);
        errorApiText[sizeof errorApiText - 1] = '\0';
    }
    // A failure is told even where the server has no text for it.
    if (*errorApiText == '\0' && number != kNotesNoError) {
        formatText(errorApiText, sizeof errorApiText, "Notes status %d", number);
    }
    DB_TraceExt("Got Notes error: %s (%d)", errorApiText, number);
    if (bLog) {
        DB_LogExt("%s", errorApiText);
    }
    return errorApiText;
}
