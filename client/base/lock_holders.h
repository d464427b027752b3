// Which processes have a lock on a file, as the kernel tells; nobody is disturbed by the asking.
#pragma once

#include "client/base/process_note.h"

#include <cstdint>
#include <utility>
#include <vector>

namespace qrtln {

enum class LockKind {
    whole, // flock()
    bytes, // F_OFD_SETLK
};

struct LockHolder {
    ProcessNote process; // its number is 0 where this user cannot see it
    // It shares, as its child, the lock that the process of this number took, which ended; else 0.
    pid_t left_by = 0;
    // Of `bytes`: the first and the last of each range.
    std::vector<std::pair<std::int64_t, std::int64_t>> ranges = {};
};

// Those of an open file or folder on this host, by their numbers. Of `bytes` only those into which
// this user may look: its own, or everybody's for root. Processes of other hosts, and of containers
// beside this one, are not seen.
std::vector<LockHolder> lock_holders(int file, LockKind kind);

} // namespace qrtln
