// A notes.ini as it is written, not as anybody reads it.
#pragma once

#include "client/acceptance/report.h"
#include "client/domino/notes_ini.h"

namespace qrtln::acceptance {

// Adds what the notes.ini says, and which of its variables are there more than once with values
// that differ: programs differ in which one counts.
void check_notes_ini(Report& report, const NotesIni& ini);

// The value of a variable, its name in lower case; empty when it is missing.
std::string ini_value(const NotesIni& ini, const std::string& name);

} // namespace qrtln::acceptance
