// What the server's library wants around it in its process: environment, character set.
#pragma once

#include "client/domino/notes_ini.h"

#include <string>
#include <utility>
#include <vector>

namespace qrtln {

struct ModuleEnvironment {
    std::vector<std::pair<std::string, std::string>> variables; // to be set, beside the inherited
    std::vector<std::string> warnings;                          // for a person
};

// The environment of the module's process, from this one's: the program directory is
// $Notes_ExecDirectory, else the NotesProgram of notes.ini. It comes first in LD_LIBRARY_PATH, and
// in PATH with its "res" and the data directory. The locale is one with UTF-8 where there is one.
ModuleEnvironment module_environment(const NotesIni& ini);

// This process's environment with these variables, as execve takes it: "NAME=VALUE".
std::vector<std::string>
environment_with(const std::vector<std::pair<std::string, std::string>>& variables);

// What to do when the loader gave this text for the server's library, or the module says that the
// library lacks functions: which file or symbol is missing and where it was looked for. Empty for
// any other text.
std::string loader_hint(const std::string& text, const NotesIni& ini);

} // namespace qrtln
