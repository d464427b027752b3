// Brings the sets of a store that had whole objects alone into its newer format.
#pragma once

#include "client/store/store.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qrtln {

struct ConvertedSets {
    std::size_t sets = 0;               // that were converted, or are
    std::size_t contents = 0;           // that are in blocks now and were not before
    std::uint64_t freed_bytes = 0;      // of whole objects, less what their blocks took
    std::vector<std::string> left_over; // what stays as it is, and why
    bool damaged_manifest = false;      // of one of these
};

// Stores the databases and small files of every set in blocks, the oldest set first. Of each
// content the plain bytes are read back and compared with the name of its object before the set
// refers to it; a set is replaced by one that says the same of everything else. Objects that no set
// needs any more go at the end, when nobody reads a set. What is damaged stays as it is. A crash
// leaves some sets converted: the next call goes on. Throws
// ClientError. REQUIRES: the store has packs, and is locked for writing.
ConvertedSets convert_sets(Store& store);

} // namespace qrtln
