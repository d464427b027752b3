// The one table of what callers of the server's library tell apart, and of what a failing call
// leaves by contract.
#pragma once

#include <string>
#include <vector>

#include "notes_api/types.h"
#include "notes_simulator/notes_sim_inspection.h"

// A status that no caller tells apart.
inline constexpr STATUS kUntoldStatus = 4000;
// Leaves nothing.
inline constexpr int kNothing = -1;

struct NotesCall {
    const char* name;
    // The statuses that its caller in the module tells apart.
    std::vector<STATUS> toldApart;
    // What stays because closing it is what failed: a NotesSimKind.
    int leaves = kNothing;
    // What the module says of its failure instead of the status's text: calls without a status, and
    // those whose text the interface fixes.
    const char* says = nullptr;
    // It cannot report a failure: what it answers is the answer. The operation may then do less
    // than without the fault, and call that done.
    bool cannotFail = false;
};

// A call's entry; one without an entry of its own has just kUntoldStatus.
const NotesCall& notesCall(const std::string& name);

// What a failing call on a file leaves, or leaves out, by contract.
enum FileAllowance : unsigned {
    kLeavesCopy = 1,   // a copy under TMP_DIR
    kLeavesStream = 2, // a stream that stays open
    kDoesLess = 4,     // the operation goes on without what the call was for
    kUnflushed = 8,    // bytes that may not have reached the disk, in an operation that is done
    kOtherReason = 16, // the operation fails with a reason that is not the call's error
};

// What is allowed after the failure of a call on a path: below the folder of the test, as "tmp/..",
// "run/.." and "server/..", or absolute.
unsigned allowedAfter(const std::string& call, const std::string& path);

// Whether a status is an answer rather than a failure: there is nothing to do.
bool isAnswer(const std::string& call, STATUS status);
