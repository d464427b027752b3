// The one table of what callers of the server's library tell apart, and of what a failing call
// leaves by contract.
#pragma once

#include <string>
#include <vector>

#include "notes_api/types.h"

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

// A call's entry; one without an entry of its own has just untold_status.
const NotesCall& notes_call(const std::string& name);

// What a failing call on a file leaves, or leaves out, by contract.
enum FileAllowance : unsigned {
    leaves_copy = 1,   // a copy under TMP_DIR
    leaves_stream = 2, // a stream that stays open
    unflushed = 4,     // bytes that may not have reached the disk, in an operation that is done
    other_reason = 8   // the operation fails with a reason that is not the call's error
};

// What is allowed after the failure of a call on a path: below the folder of the test, as "tmp/..",
// "run/.." and "server/..", or absolute.
unsigned allowed_after(const std::string& call, const std::string& path);

} // namespace qrtln::torture
