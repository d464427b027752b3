#include "tests/torture/calls.h"

#include <algorithm>

namespace {

const NotesCall kCalls[] = {
    {"NotesInitExtended",
     {kNotesAccessDenied, kNotesInvalidDirectory},
     kNothing,
     "Notes API NotesInitExtended() failed: (STATUS 0X"},
    {"OSGetDataDirectory", {}, kNothing, "Notes API OSGetDataDirectory() failure"},
    // One message for either directory: hosts know it.
    {"OSGetEnvironmentString", {}, kNothing, "Notes API OSGetDataDirectory() failure"},
    {"OSTranslate", {}, kNothing, "is not valid"},
    {"OSLockObject", {}, kNothing, "cannot lock the working buffer"},
    {"OSMemFree", {}, NOTES_SIM_MEMORY_OBJECTS},
    {"OSGetIntlSettings", {}, kNothing, "ConvertTextToTIMEDATE() failed, got error "},
    // Its result is not looked at, by contract: the copy of a note fails then.
    {"NSFDbIDGet", {}, kNothing, "NSFDbCopyNote() call failed"},
    {"NSFDbOpen", {kNotesNoSuchFile, kNotesNotADatabase}},
    {"NSFDbClose", {}, NOTES_SIM_DATABASES},
    {"NSFBackupStart", {kNotesBackupInProgress, kNotesNotADatabase}},
    {"NSFBackupEnd", {}, NOTES_SIM_BACKUP_CONTEXTS},
    {"NSFBackupEndApplyChangeInfo", {}, NOTES_SIM_APPLY_CONTEXTS},
    {"NSFIsNewBackupNeeded", {kNotesNotBackedUp}},
    {"NSFGetTransLogStyle", {kNotesLoggingNotInEffect}},
    {"NSFBeginArchivingLogs", {kNotesArchivingInProgress}},
    {"NSFEndArchivingLogs", {kNotesArchivingInProgress}},
    {"NSFGetFirstLogToArchive", {kNotesNoLogToArchive}},
    {"NSFGetNextLogToArchive", {kNotesNoLogToArchive}},
    {"NSFTakeDatabaseOffline", {kNotesDatabaseInUse}},
    {"NSFRecoverDatabases", {kNotesNotBackedUp}},
    {"NSFDbGetModifiedNoteTable", {kNotesNoNoteModified}},
    {"IDDestroyTable", {}, NOTES_SIM_ID_TABLES},
    // Not to be able to write the time down again answers "not modified", without a word, by
    // contract; the mark that the server hears only saves it work.
    {"ConvertTIMEDATEToText", {}, kNothing, nullptr, true},
    // A table's end, an empty table, an absent id; a constant that is not written.
    {"IDScan", {}, kNothing, nullptr, true},
    {"IDEntries", {}, kNothing, nullptr, true},
    {"IDIsPresent", {}, kNothing, nullptr, true},
    {"TimeConstant", {}, kNothing, nullptr, true},
};

// "None", or "not so": 3748 and the like mean that it could not be done.
constexpr struct {
    const char* call;
    STATUS status;
} kAnswers[] = {
    {"NSFIsNewBackupNeeded", kNotesNotBackedUp},
    {"NSFGetTransLogStyle", kNotesLoggingNotInEffect},
    {"NSFGetFirstLogToArchive", kNotesNoLogToArchive},
    {"NSFGetNextLogToArchive", kNotesNoLogToArchive},
    {"NSFDbGetModifiedNoteTable", kNotesNoNoteModified},
};

// What a failing call on a file costs, where that is meant. Everything else costs nothing but the
// operation.
constexpr struct {
    const char* call;
    const char* below; // the path's beginning
    unsigned allowed;
} kFileAllowances[] = {
    // A copy that cannot be removed is there. The index's has the id of a process: none reads it.
    {"remove", "tmp/", kLeavesCopy},
    {"remove", "run/", kLeavesCopy},
    // A copy whose target cannot be opened leaves its source open.
    {"fopen", "server/data/", kLeavesStream},
    {"mkdir", "server/data/", kLeavesStream},
    {"fopen", "run/qrtln_DBIID.ini.", kLeavesStream},
    // An index that could not be flushed does not replace the old one, which is logged; one that
    // did
    // and whose folder could not be flushed is whole, old or new, after a power cut.
    {"fsync", "run", kUnflushed},
    // These just look whether there is a file, and say that there is none; or take it for there,
    // and the server says why it cannot have it.
    {"access", "/", kOtherReason},
    {"stat", "server/notes.ini", kOtherReason},
    {"stat", "server/logs/", kOtherReason},
    {"stat", "server/data/", kOtherReason},
};

} // namespace

unsigned allowedAfter(const std::string& call, const std::string& path) {
    unsigned allowed = 0;
    for (const auto& entry : kFileAllowances) {
        if (call == entry.call && path.starts_with(entry.below)) {
            allowed |= entry.allowed;
        }
    }
    return allowed;
}

const NotesCall& notesCall(const std::string& name) {
    static const NotesCall kOther = {"", {}};
    const auto* const end = std::end(kCalls);
    const auto* const found =
        std::find_if(kCalls, end, [&](const NotesCall& call) { return name == call.name; });
    return found != end ? *found : kOther;
}

bool isAnswer(const std::string& call, STATUS status) {
    return std::any_of(std::begin(kAnswers), std::end(kAnswers), [&](const auto& answer) {
        return call == answer.call && status == answer.status;
    });
}
