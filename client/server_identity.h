// Which server a set is of, and which sets of a store a command takes.
#pragma once

#include "client/store/manifest.h"
#include "client/store/store.h"

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

// The name of this host; empty when the system does not tell.
std::string host_name();

// What is wrong with a name for a server; empty: nothing.
std::string server_name_problem(const std::string& name);

// "mail1 (/local/notesdata)": the server that a set is of.
std::string server_text(const Manifest& manifest);

// Which other servers the store has sets of, as a sentence, and how to take those; both are empty
// when there are none.
struct OtherServers {
    std::string what;
    std::string hint;
};
OtherServers other_servers(Store& store, const ServerScope& scope);

// Gives the paths of a set below one data directory those below another.
void move_data_directory(Manifest& manifest, const std::string& from, const std::string& to);

// The folder of a server's run-time data in a store, below `runtime`, the folder of all. That of
// the server which uses the store first is `runtime` itself; each other one has its own, which
// begins, where the store has sets of earlier releases of this server, with copies of what lies in
// `runtime`. With `creates`, what is missing is made and flushed. Throws ClientError.
std::string server_runtime_directory(Store& store, const std::string& runtime,
                                     const std::string& server, bool creates);

} // namespace qrtln
