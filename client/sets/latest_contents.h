// What the store has of the newest version of each of a server's files.
#pragma once

#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstdint>
#include <map>
#include <string>

namespace qrtln {

struct LatestContent {
    BlockContent content; // of a whole object its name alone
    std::uint64_t size = 0;
    std::uint64_t stored_size = 0;
    std::int64_t mtime_ns = 0;
    std::int64_t ctime_ns = 0;
    std::uint64_t inode = 0; // 0: whether the file is still that one is not known
};

// By the full path, where the data directory is now. Sets whose manifests are damaged are passed
// over. Throws as the store does.
std::map<std::string, LatestContent> latest_contents(Store& store, const ServerScope& scope);

} // namespace qrtln
