// What a file is to the module by its name.
#pragma once

#include <string_view>

namespace qrtln {

// Whether the module handles a file of this name as a database: copies it before it is read.
bool is_database_name(std::string_view name);

// Whether the module takes a file of this name from a folder: databases, and what belongs to a
// server.
bool is_selected_name(std::string_view name);

} // namespace qrtln
