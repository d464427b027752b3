// Attachment objects: contents of attachments that lie in files of their own, each named after its
// SHA-1, and the notes that refer to them.
#pragma once

#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/engine/database.h"
#include "notes_simulator/server/server.h"

#include <filesystem>
#include <string>
#include <vector>

namespace domino_sim {

/// The folder of a server's objects: DAOSBasePath of its notes.ini, below the data directory unless
/// it is a full path, "DAOS" when missing.
std::filesystem::path objectFolder(const notes_sim::Server& server);

/// Writes an object of this many made-up bytes, as 0001/<40 hexadecimal digits>.nlo, and returns a
/// new note that refers to it. The object is there, whole, before the note can be.
notes_sim::NoteChange attach(const notes_sim::Server& server, ContentGenerator& content,
                             std::size_t size);

/// Checks that each object that a note of the database refers to lies below one of these folders,
/// in any folder, with the content that its name tells. Returns how many references there are.
/// Throws CheckFailed with those that are missing.
std::size_t checkObjects(notes_sim::Database& database,
                         const std::vector<std::filesystem::path>& folders);

} // namespace domino_sim
