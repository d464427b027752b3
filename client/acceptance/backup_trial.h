// The smallest database of a server goes the whole way: saved at copy level, which leaves no trace
// on the server, into a store of its own, recovered from that and read by the server's library.
#pragma once

#include "client/acceptance/report.h"

#include <string>
#include <vector>

namespace qrtln::acceptance {

struct BackupTrial {
    std::string notes_ini;
    std::string folder;            // an empty one below --tmp-dir, that the caller removes
    std::vector<std::string> more; // options that both commands get
    std::string database;          // its full path
    std::string shown;             // how the report names it
};

// Adds what came of it to the report. Throws ClientError, also when it is interrupted.
void try_backup(Report& report, const BackupTrial& trial);

} // namespace qrtln::acceptance
