// Directory links: files NAME.dir that stand for a folder, or a database, outside the data
// directory.
#pragma once

#include "client/domino/notes_ini.h"

#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// The databases behind a directory link: a file NAME.dir whose first line names a folder, or a
// database, outside the data directory. The server shows them below NAME beside the file, which is
// the shown folder, relative to the data directory.
struct LinkedDatabases {
    std::vector<std::string> databases;                       // full paths where they really are
    std::vector<std::pair<std::string, std::string>> unknown; // paths with what kept from a look
    std::string target;                                       // what the first line names
};
bool is_directory_link(const std::string& path); // by its name
std::string shown_folder(const std::string& link, const std::string& data_directory);
LinkedDatabases databases_behind(const std::string& link, const NotesIni& ini);

} // namespace qrtln
