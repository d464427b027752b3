// What the sets of a store refer to: nothing of it may go.
#pragma once

#include "client/store/reclaim.h"
#include "client/store/store.h"

#include <set>
#include <string>

namespace qrtln {

// Of all sets but `without`. Throws ClientError(damage_found) where that cannot be known: a
// manifest or a map is damaged, or a set is missing.
StoreUse store_use(Store& store, const std::set<std::string>& without);

} // namespace qrtln
