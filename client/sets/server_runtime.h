// Where a store keeps the run-time data of each server.
#pragma once

#include "client/store/store.h"

#include <string>

namespace qrtln {

// Has the store use the run-time data of this server. That of the server which uses the store first
// is in the folder of all; each other one has its own below it, which begins, where the store has
// sets of earlier releases of this server, with copies of what lies in that of all. In a store that
// is opened for writing what is missing is made and flushed. Throws ClientError.
void use_runtime_of(Store& store, const std::string& server);

} // namespace qrtln
