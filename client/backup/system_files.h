// The files below the data directory that the module does not know: key rings, pages, classes,
// links. The client finds and saves them itself.
#pragma once

#include "client/backup/path_rules.h"
#include "client/domino/notes_ini.h"
#include "client/sets/manifest.h"

#include <functional>
#include <string>
#include <sys/stat.h>

namespace qrtln {

struct FoundFile {
    enum class Type { file, link, folder, unreadable };
    std::string path; // below the data directory's text
    Type type = Type::file;
    struct stat status {};
    std::string problem; // of what is unreadable: a folder, or what cannot be looked at
};

// Whether somebody else saves what is there, whatever the rules say. Not asked for folders.
using KnownFile = std::function<bool(const std::string& path, const struct stat& status)>;

// Walks the data directory, the names of a folder in their order: no link is followed. What is
// known, and the transaction log, is passed over. Returns what was left out. Throws when
// interrupted.
LeftOutFiles find_system_files(const NotesIni& ini, const PathRules& rules, const KnownFile& known,
                               const std::function<void(const FoundFile&)>& found);

} // namespace qrtln
