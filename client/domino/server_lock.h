// What keeps two runs from disturbing each other's backups of one server, and two stores from
// archiving its transaction logs: each would have only some of them, and no chain to recover along.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/domino/notes_ini.h"
#include "client/store/store.h"

#include <string>

namespace qrtln {

// Locks the server's data directory, without a trace in it, against other runs that begin backups
// of its databases, into whatever store: the module ends a backup that it finds open, taking it for
// that of a killed run. Holds for as long as the descriptor or a child's copy of it is open. Where
// the file system cannot lock folders that is said, and there is no lock. Throws
// ClientError(locked), with the process that has it.
FileDescriptor lock_server(const NotesIni& ini);

// Who has that lock, "process 12 (COMMAND)", without asking for it: a run that begins meanwhile is
// not disturbed. Empty: nobody, or the system does not tell.
std::string run_that_locks(const NotesIni& ini);

// The store that archives the server's logs, as a note in its data directory tells: why a backup
// into this one must not; empty: it may. Throws ClientError(failed) for a note that cannot be read.
std::string other_log_archive(const NotesIni& ini, const Store& store);

// Notes that it is this store. Returns what went wrong, or an empty text.
std::string note_log_archive(const NotesIni& ini, const Store& store);

// The name of the note's file.
extern const char* const log_archive_file;

} // namespace qrtln
