// Takes an item's content out of the store, into a file that is not in place yet or elsewhere.
#pragma once

#include "client/base/file_io.h"
#include "client/restore/safe_file.h"
#include "client/sets/manifest.h"
#include "client/store/store.h"

#include <cstdint>
#include <functional>
#include <string>

namespace qrtln {

struct WrittenContent {
    std::uint64_t bytes = 0; // written, when nothing is wrong
    std::string problem;     // of writing; empty: none
    std::string damage;      // of what the store has: "its object HASH ..."; empty: none
    bool whole() const { return problem.empty() && damage.empty(); }
};

// Gives the object of the item, whose size and hash must be what the item tells, to `write`, block
// by block: it returns what failed, which ends the reading. That the content is whole is known only
// afterwards. Throws as the store and `write` do.
WrittenContent read_content(Store& store, const ManifestItem& item,
                            const std::function<std::string(Bytes bytes)>& write);

// Likewise into a file. `on_block` hears of each block before it is written, and ends all by
// throwing.
WrittenContent write_content(Store& store, const ManifestItem& item, SafeFile& file,
                             const std::function<void(std::uint64_t bytes)>& on_block);

} // namespace qrtln
