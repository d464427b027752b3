// The index of database instances: which DBIID each database had when it was last saved. It lives
// between runs as an INI file with one section, [DBIID], and one line path=DBIID a database.
//
// A run changes only its working copy, <index>.<process id>; the end of a successful backup puts it
// in the index's place.
#pragma once

#include <cstddef>

#include "qrt_lotus_notes/operation_state.h"

struct _dictionary_;

// The index in memory: opened by openDBIIDIndex, kept past the close of the operation. It holds
// what the working copy holds. NULL before the first backup.
extern _dictionary_* gdcDBIID;

// Opens the index for a run: loads it into gdcDBIID and makes the working copy, or starts with an
// empty section where there is no index. A working copy that cannot be made is only traced. An
// index that is there and cannot be read is logged and left alone: the run has no entries then,
// sets none, and its end replaces nothing.
void openDBIIDIndex();

// Returns the DBIID text that the index has for a database, nullptr without one. The text belongs
// to the index and is valid until the next storeDbIId. The path is in UTF-8.
const char* storedDbIId(const char* cpUtf8Path);

// Sets the entry of a database, in memory and in the working copy, which then reads as if the whole
// index had been written anew; the cost is that of the one entry. A path with a line end in it gets
// no entry (logged): the file has no form for it. A working copy that cannot be
// written is logged: the index then keeps what it had unless a later entry can be written. The
// entry is not set when the working copy cannot be opened.
void storeDbIId(const char* cpUtf8Path, const char* cpDbIId);

// The path of the working copy, for messages.
const char* workingCopyPath();

// Ends the run: with bOk the working copy replaces the index, so that a crash leaves the old or the
// new one whole; in every case the working copy is deleted. 3000 or 1000 (logged). Without a run,
// what has the name of its working copy is somebody else's leftover: it is deleted, never taken.
int QRTLN_EndDBIIDIndexProcessing(BOOL bOk);

// Forgets the run without ending it, as a close does that failed before: its working copy stays
// where it is and is nobody's from now on.
void forgetDBIIDIndexRun();

// Releases gdcDBIID, and forgets the run.
void releaseDBIIDIndex();

// Appends "." and the process id to str, never beyond size bytes in all.
void AddPidToFilename(char* str, std::size_t size);
