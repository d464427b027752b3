// Where the store has the newest version of each of a server's files that is stored in blocks.
#pragma once

#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <map>
#include <string>

namespace qrtln {

// By the full path, where the data directory is now. Sets whose manifests are damaged are passed
// over. Throws as the store does.
std::map<std::string, BlockContent> latest_contents(Store& store, const ServerScope& scope);

} // namespace qrtln
