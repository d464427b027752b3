// What the module tells in its protocol alone.
#pragma once

#include "client/store/manifest.h"

#include <optional>
#include <string>

namespace qrtln {

struct AnnouncedLog {
    std::string path;
    LogIdentity identity;
};

// The transaction log that a line of the protocol announces before the module hands it out, or
// nothing for any other line.
std::optional<AnnouncedLog> parse_log_announcement(const std::string& line);

// Whether a line says that another archiving session was open on the server. The module has ended
// that session: one more start succeeds.
bool says_archiving_in_progress(const std::string& line);

} // namespace qrtln
