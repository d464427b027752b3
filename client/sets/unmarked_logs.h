// Transaction logs that are stored, but that the server did not mark as archived: it keeps them,
// and its disk fills up.
#pragma once

#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <string>

namespace qrtln {

// What is wrong with the close of the newest set of this server that has transaction logs and was
// to be closed with success, for a person; empty: nothing.
std::string last_close_problem(Store& store, const ServerScope& scope);

} // namespace qrtln
