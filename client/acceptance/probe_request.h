// Which group of calls of the server's library is tried, and on what.
#pragma once

#include "client/domino/notes_ini.h"
#include "client/domino/server_user.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qrtln::acceptance {

// The groups, in the order in which they are run; probes.h, database_trial.h and log_trial.h say
// what they do.
enum class Group {
    start,
    second_start,
    names_and_times,
    databases,
    log_style,
    quiet_backup,
    busy_backup,
    recovery,
    offline,
    list_logs,
    mark_log,
};

struct NamedDatabase {
    std::string path;  // full
    std::string shown; // in the report: below the data directory, or a number
};

// What the groups work on.
struct ProbeRequest {
    NotesIni ini; // for a group: its file, its directories and what it says of the log
    std::vector<std::pair<std::string, std::string>> environment; // beside the inherited
    std::optional<ServerUser> user;                               // whom the process becomes
    std::vector<NamedDatabase> databases;
    NamedDatabase test_database; // of the steps that write to one
    std::string folder;          // private and empty, for copies
    std::string log_folder;      // where the log is kept that is marked
    bool hide_output = false;    // what the library writes may name databases
};

} // namespace qrtln::acceptance
