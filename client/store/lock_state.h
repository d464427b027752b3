// Who uses a store at the moment.
#pragma once

#include "client/base/process_note.h"
#include "client/store/store.h"

#include <optional>
#include <string>
#include <vector>

namespace qrtln {

enum class LockState {
    free,
    held,
    left,  // a process that had it ended without releasing it: the next one takes it over
    noted, // a process of another host, or container, noted that it has it: not seen from here
};

// "free", "held", ...
const char* lock_state_name(LockState state);

// The lock of who writes to the store, or of its readers.
struct UsedLock {
    LockState state = LockState::free;
    std::optional<ProcessNote> process = {}; // that has it, or had it
    std::vector<std::string> sets = {};      // that it reads
};

// The state of a flock of an open file or folder. A file of the name `lock` has a note.
UsedLock state_of_lock(int file, bool has_note);

// The lock of who writes. Nobody is disturbed by the asking. Throws ClientError(no_permission).
UsedLock writer_of(const Store& store);

// The claim on a store that lies elsewhere, likewise.
UsedLock claim_of(const Store& store);

// Who reads contents of these sets, one a process. Throws likewise.
std::vector<UsedLock> readers_of(const Store& store, const std::vector<std::string>& sets);

} // namespace qrtln
