// How the values of the module's control variables are written.
#pragma once

#include <string>

namespace qrtln {

// What in a path means something to the module where it stands in the control variable INFO, as a
// text for a person; empty when nothing does.
std::string misread_in_info(const std::string& path);

// The value of the control variable INFO for a relocation to this folder, by a path that the module
// reads as it is meant.
std::string relocation_info(const std::string& to, bool plain);

// The path as a pattern that its last component alone matches. Where a folder above has a "*" in
// its name, what has the same last component in folders below that one is matched, too.
std::string escape_last_component(const std::string& path);

} // namespace qrtln
