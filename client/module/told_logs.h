// What the module tells of the server's transaction logs: which it hands out, whether the server
// archives any, and which the server did not mark as archived.
#pragma once

#include "client/sets/manifest.h"

#include <cstddef>
#include <cstdint>
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

// The whole identity that the line behind an announcement tells for the log of this number, 34
// characters; empty for any other line.
std::string parse_whole_identity(const std::string& line, std::uint32_t number);

// Whether a line says that the server does not list its logs.
bool says_logs_not_listed(const std::string& line);

// Whether a line says that another archiving session was open on the server. The module has ended
// that session: one more start succeeds.
bool says_archiving_in_progress(const std::string& line);

// Why a line says that the server has no logs to archive ("circular logging"); empty for any other.
std::string logging_without_archive(const std::string& line);

// Transaction logs that are stored, but that the server did not mark as archived: it keeps them,
// and its disk fills up. The module's close succeeds all the same.
class UnmarkedLogs {
  public:
    // Reads a line of the module's protocol.
    void read(const std::string& line);
    // What went wrong, with the first log and the server's reason; empty: nothing.
    std::string problem() const;

  private:
    std::string m_asked; // the number of the log that the server was last told of
    std::string m_first;
    std::string m_reason;
    std::size_t m_count = 0;
};

} // namespace qrtln
