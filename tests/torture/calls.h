// The one table of what callers of the server's library tell apart, and of what a failing call
// leaves by contract.
#pragma once

#include <string>
#include <vector>

#include "notes_api/types.h"
#include "notes_simulator/notes_sim_inspection.h"

namespace qrtln::torture {

// A status that no caller tells apart.
inline constexpr STATUS untold_status = 4000;
// Leaves nothing.
inline constexpr int nothing = -1;

// What the statuses of a call mean.
enum class Reports {
    failures,
    answers,   // those told apart mean that there is nothing to do, or "not so"
    no_failure // what it answers is the answer: the operation may do less, and call that done
};

struct NotesCall {
    const char* name;
    // The statuses that its caller in the module tells apart.
    std::vector<STATUS> told_apart = {};
    // What stays because closing it is what failed: a NotesSimKind.
    int leaves = nothing;
    // What the module says of its failure instead of the status's text: calls without a status, and
    // those whose text the interface fixes.
    const char* says = nullptr;
    Reports reports = Reports::failures;
};

inline const NotesCall notes_calls[] = {
    {"NotesInitExtended",
     {kNotesAccessDenied, kNotesInvalidDirectory},
     nothing,
     "Notes API NotesInitExtended() failed: (STATUS 0X"},
    {"OSGetDataDirectory", {}, nothing, "Notes API OSGetDataDirectory() failure"},
    // One message for either directory: hosts know it.
    {"OSGetEnvironmentString", {}, nothing, "Notes API OSGetDataDirectory() failure"},
    {"OSTranslate", {}, nothing, "is not valid"},
    {"OSLockObject", {}, nothing, "cannot lock the working buffer"},
    {"OSMemFree", {}, NOTES_SIM_MEMORY_OBJECTS},
    {"OSGetIntlSettings", {}, nothing, "ConvertTextToTIMEDATE() failed, got error "},
    // Its result is not looked at, by contract: the copy of a note fails then.
    {"NSFDbIDGet", {}, nothing, "NSFDbCopyNote() call failed"},
    {"NSFDbOpen", {kNotesNoSuchFile, kNotesNotADatabase}},
    {"NSFDbClose", {}, NOTES_SIM_DATABASES},
    {"NSFBackupStart", {kNotesBackupInProgress, kNotesNotADatabase}},
    {"NSFBackupEnd", {}, NOTES_SIM_BACKUP_CONTEXTS},
    {"NSFBackupEndApplyChangeInfo", {}, NOTES_SIM_APPLY_CONTEXTS},
    {"NSFIsNewBackupNeeded", {kNotesNotBackedUp}, nothing, nullptr, Reports::answers},
    {"NSFGetTransLogStyle", {kNotesLoggingNotInEffect}, nothing, nullptr, Reports::answers},
    {"NSFBeginArchivingLogs", {kNotesArchivingInProgress}},
    {"NSFEndArchivingLogs", {kNotesArchivingInProgress}},
    {"NSFGetFirstLogToArchive", {kNotesNoLogToArchive}, nothing, nullptr, Reports::answers},
    {"NSFGetNextLogToArchive", {kNotesNoLogToArchive}, nothing, nullptr, Reports::answers},
    {"NSFTakeDatabaseOffline", {kNotesDatabaseInUse}},
    {"NSFRecoverDatabases", {kNotesNotBackedUp}},
    {"NSFDbGetModifiedNoteTable", {kNotesNoNoteModified}, nothing, nullptr, Reports::answers},
    {"IDDestroyTable", {}, NOTES_SIM_ID_TABLES},
    // Not to be able to write the time down again answers "not modified", without a word, by
    // contract; the mark that the server hears only saves it work.
    {"ConvertTIMEDATEToText", {}, nothing, nullptr, Reports::no_failure},
    // A table's end, an empty table, an absent id; a constant that is not written.
    {"IDScan", {}, nothing, nullptr, Reports::no_failure},
    {"IDEntries", {}, nothing, nullptr, Reports::no_failure},
    {"IDIsPresent", {}, nothing, nullptr, Reports::no_failure},
    {"TimeConstant", {}, nothing, nullptr, Reports::no_failure},
};

// A call's entry; one without an entry of its own has just untold_status.
inline const NotesCall& notes_call(const std::string& name) {
    for (const NotesCall& call : notes_calls)
        if (name == call.name)
            return call;
    static const NotesCall other = {""};
    return other;
}

// What a failing call on a file leaves, or leaves out, by contract.
enum FileAllowance : unsigned {
    leaves_copy = 1,   // a copy under TMP_DIR
    leaves_stream = 2, // a stream that stays open
    unflushed = 4,     // bytes that may not have reached the disk, in an operation that is done
    other_reason = 8   // the operation fails with a reason that is not the call's error
};

// What a failing call on a file costs, where that is meant. Everything else costs nothing but the
// operation.
constexpr struct {
    const char* call;
    const char* below; // the path's beginning
    unsigned allowed;
} file_allowances[] = {
    // A copy that cannot be removed is there. The index's has the id of a process: none reads it.
    {"remove", "tmp/", leaves_copy},
    {"remove", "run/", leaves_copy},
    // A copy whose target cannot be opened leaves its source open.
    {"fopen", "server/data/", leaves_stream},
    {"mkdir", "server/data/", leaves_stream},
    {"fopen", "run/qrtln_DBIID.ini.", leaves_stream},
    // An index that could not be flushed does not replace the old one, which is logged; one that
    // did and whose folder could not be flushed is whole, old or new, after a power cut.
    {"fsync", "run", unflushed},
    // These just look whether there is a file, and say that there is none; or take it for there,
    // and the server says why it cannot have it.
    {"access", "/", other_reason},
    {"stat", "server/notes.ini", other_reason},
    {"stat", "server/logs/", other_reason},
    {"stat", "server/data/", other_reason},
};

// What is allowed after the failure of a call on a path: below the folder of the test, as "tmp/..",
// "run/.." and "server/..", or absolute.
inline unsigned allowed_after(const std::string& call, const std::string& path) {
    unsigned allowed = 0;
    for (const auto& entry : file_allowances)
        if (call == entry.call && path.starts_with(entry.below))
            allowed |= entry.allowed;
    return allowed;
}

} // namespace qrtln::torture
