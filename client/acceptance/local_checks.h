// What can be seen of a server without its library.
#pragma once

#include "client/acceptance/report.h"
#include "client/domino/notes_ini.h"
#include "client/module/environment.h"

#include <string>
#include <vector>

namespace qrtln::acceptance {

struct LocalRequest {
    NotesIni ini;
    ModuleEnvironment environment; // of the server's library
    std::string tmp_dir;
    std::string store;       // empty: none is named
    bool hide_names = false; // of databases and files
};

// Adds the findings of the first step: user, notes.ini, environment, locale, room, links,
// attachment store, other archivers, transaction log. Reads only. Returns the full paths of the
// databases that the module would take, sorted; not those that lead elsewhere.
std::vector<std::string> check_without_library(Report& report, const LocalRequest& request);

// The character set that LANG and its like name.
std::string environment_codeset();

} // namespace qrtln::acceptance
