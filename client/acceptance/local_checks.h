// What can be seen of a server without its library.
#pragma once

#include "client/acceptance/local_request.h"
#include "client/acceptance/report.h"

#include <string>
#include <vector>

namespace qrtln::acceptance {

// Adds the findings of the first step: user, notes.ini, environment, locale, room, links,
// attachment store, other archivers, transaction log. Reads only. Returns the full paths of the
// databases that the module would take, sorted; not those that lead elsewhere.
std::vector<std::string> check_without_library(Report& report, const LocalRequest& request);

// The character set that LANG and its like name.
std::string environment_codeset();

} // namespace qrtln::acceptance
