// Whether the server can open databases: one that a killed recovery left offline it cannot.
#pragma once

#include "client/module_session.h"

#include <map>
#include <string>
#include <vector>

namespace qrtln {

// Asks the server to open each database and returns those that it cannot, by path with the reason.
// Nothing is copied, and nothing counts as backed up by it. Full paths of databases that exist.
// Throws ClientError(server_error) when the server cannot be asked.
std::map<std::string, std::string> find_unopenable(const OperationContext& context,
                                                   const std::vector<std::string>& paths);

} // namespace qrtln
