// Which server a set is of.
#pragma once

#include "client/sets/manifest.h"

#include <string>

namespace qrtln {

// The sets of one server, and where its data directory is now.
struct ServerScope {
    std::string name;                    // as --server gave it to its sets
    std::string own_name;                // the server's own, from its notes.ini; empty: any
    std::string data_directory;          // absolute, where it is now
    std::string recorded_data_directory; // as its sets have it

    // Whether the set is one of them.
    bool covers(const Manifest& manifest) const;
};

// What is wrong with a name for a server; empty: nothing.
std::string server_name_problem(const std::string& name);

// "mail1 (/local/notesdata)": the server that a set is of.
std::string server_text(const Manifest& manifest);

// Gives the paths of a set below one data directory those below another.
void move_data_directory(Manifest& manifest, const std::string& from, const std::string& to);

} // namespace qrtln
