// A server whose every answer comes from the input: the table of the Notes C API, each slot filled
// with a function that takes its status and outputs from a tape of bytes. An empty tape answers as
// a server would at which nothing goes wrong.
//
// What the module owns on the server is counted, and what it must not do ends the process: a handle
// used that was not given, or given back twice.
#pragma once

#include <string>
#include <string_view>

#include "notes_api/notes_api.h"

namespace fuzz {

// Fills every slot of notes_api. REQUIRES: called once.
void installFakeNotes();

// Starts a server that answers from the tape. Its data directory is folder()/data.
void startFakeServer(std::string_view tape);

// What of the server the module still holds. Databases that stay open by contract, when logging is
// not in effect, are not counted.
struct HeldResources {
    int databases;
    int backups;
    int applies;
    int tables;
    int memory;
};
HeldResources heldResources();

// Frees what is held, so that no input inherits it.
void releaseHeldResources();

// Logs marked as archived since the server was started.
int archivedLogs();

} // namespace fuzz
