// What is looked at without the server's library.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/module/environment.h"

#include <string>

namespace qrtln::acceptance {

struct LocalRequest {
    NotesIni ini;
    ModuleEnvironment environment; // of the server's library
    std::string tmp_dir;
    std::string store;       // empty: none is named
    bool hide_names = false; // of databases and files
};

} // namespace qrtln::acceptance
