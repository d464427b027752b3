// A notes.ini outside the data directory is part of the server, too; the module does not know it.
#pragma once

#include "client/backup/content_reader.h"
#include "client/backup/run.h"

namespace qrtln {

// Stores the notes.ini in use, unless it is one file with that of the data directory, or stored
// already.
void store_own_notes_ini(BackupRun& run, ContentReader& reader);

// The same when it changed since the start of the base: the module looks at a notes.ini in the data
// directory only.
void store_changed_notes_ini(BackupRun& run, ContentReader& reader);

} // namespace qrtln
