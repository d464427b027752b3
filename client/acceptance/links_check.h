// What lies below a data directory under a name and really elsewhere.
#pragma once

#include "client/acceptance/local_request.h"
#include "client/acceptance/report.h"
#include "client/backup/arguments.h"

#include <string>
#include <vector>

namespace qrtln::acceptance {

// Adds what was found of symbolic links, directory links and database links, and what the module
// would pass over. Returns the databases of the scan that are no links to others.
std::vector<std::string> check_links(Report& report, const LocalRequest& request,
                                     const SelectionScan& scan);

} // namespace qrtln::acceptance
