// Copies sets from one store to another: first to a disk nearby, then off-site.
#pragma once

#include "client/store/store.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qrtln {

struct CopiedSets {
    struct Set {
        std::string set;
        std::size_t files = 0;   // of objects, packs and maps that the other store had not
        std::uint64_t bytes = 0; // of these
    };
    std::vector<Set> copied;
    std::size_t were_there = 0;
    std::vector<std::string> forgotten; // in the other store: they stay away unless named
    std::vector<std::string> left_out;  // what could not be copied, and why
};

// Copies these sets, the oldest first, or all where none is named. What the other store has is not
// copied again, also after an interruption. Each file is checked to the last block before the
// other store gets it, and a set is there when all that it refers to is. Throws ClientError.
// REQUIRES: the sets are held in `from`; `to` is locked for writing.
CopiedSets copy_sets(Store& from, Store& to, const std::vector<std::string>& sets, bool named);

} // namespace qrtln
