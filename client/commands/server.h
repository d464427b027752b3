// Which server a command works for, and whose sets it takes, by its options.
#pragma once

#include "client/commands/commands.h"
#include "client/domino/notes_ini.h"
#include "client/module/session.h"
#include "client/store/store.h"

namespace qrtln {

// Reads the server's notes.ini as load_notes_ini does, and names the server by --server, or by the
// host. Throws ClientError, also where this user must not run the server's library.
NotesIni load_server(const ServerOptions& options, bool data_directory_may_be_missing = false);

// Has the store use the run-time data of this server, and settles whose sets count: those of
// --from-server, or its own, with the data directory that --data-directory says they have.
// `elsewhere`: what is restored goes to another folder, where any data directory will do. Throws
// ClientError.
void use_server(Store& store, NotesIni& ini, const ServerOptions& options, bool elsewhere = false);

// What the operations of a command share, by its options; `trace` is a file descriptor, or -1. It
// refers to the first two.
OperationContext operation_context(const NotesIni& ini, Store& store, const ServerOptions& options,
                                   int trace);

} // namespace qrtln
