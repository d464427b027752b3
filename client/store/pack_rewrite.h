// Writes a pack anew under its own name: without blocks that nothing uses any more, or with good
// ones in the place of damaged ones.
#pragma once

#include "client/store/pack_folder.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

struct RewriteRequest {
    std::string id;
    // Whether a block that is there stays.
    std::function<bool(std::uint32_t block)> keep;
    // A good copy of a block; empty: the pack's own is to be used.
    std::function<std::vector<std::byte>(std::uint32_t block)> replacement;
    // Blocks that are known to be lost: the new pack may go without them.
    std::set<std::uint32_t> lost = {};
};

struct RewriteResult {
    bool rewritten = false;          // else the pack is as it was: another block is damaged, too
    std::set<std::uint32_t> damaged; // that should stay and have no good copy
};

// A crash leaves the pack as it was or as it is to be, flushed. Throws PackDamage, and ClientError
// when the store cannot take it; the pack is then as it was.
RewriteResult rewrite_pack(const PackFolder& folder, const RewriteRequest& request);

} // namespace qrtln
