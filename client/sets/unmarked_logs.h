// Transaction logs that are stored, but that the server did not mark as archived: it keeps them,
// and its disk fills up. The module's close succeeds all the same.
#pragma once

#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <cstddef>
#include <string>

namespace qrtln {

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

// What is wrong with the close of the newest set of this server that has transaction logs and was
// to be closed with success, for a person; empty: nothing.
std::string last_close_problem(Store& store, const ServerScope& scope);

} // namespace qrtln
