// What keeps two stores from archiving the transaction logs of one server: each would have only
// some of them, and no chain to recover along.
#pragma once

#include "client/file_io.h"
#include "client/notes_ini.h"
#include "client/store/store.h"

#include <string>

namespace qrtln {

// Locks the server's data directory against other backups that archive its logs, into whatever
// store, for as long as the descriptor or a child's copy of it is open. Where the file system
// cannot lock folders there is no lock. Throws ClientError(locked).
FileDescriptor lock_server(const NotesIni& ini);

// The store that archives the server's logs, as a note in its data directory tells: why a backup
// into this one must not; empty: it may. Throws ClientError(failed) for a note that cannot be read.
std::string other_log_archive(const NotesIni& ini, const Store& store);

// Notes that it is this store. Returns what went wrong, or an empty text.
std::string note_log_archive(const NotesIni& ini, const Store& store);

// The name of the note's file.
extern const char* const log_archive_file;

} // namespace qrtln
