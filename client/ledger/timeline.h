// Timelines of the ledger's page: what can be recovered, drawn over the time that the sets span.
#pragma once

#include "client/ledger/ledger.h"

#include <cstdint>
#include <string>

namespace qrtln {

class Timeline {
  public:
    // From the start of the oldest set up to when the ledger was made, or the newest moment.
    Timeline(const ServerLedger& server, std::int64_t made);

    std::int64_t begin() const { return m_begin; } // seconds since 1970
    std::int64_t end() const { return m_end; }
    // SVG elements.
    std::string of_server(const ServerLedger& server) const;
    std::string of(const DatabaseLedger& database) const;

  private:
    int place(std::int64_t time) const;

    std::int64_t m_begin = 0;
    std::int64_t m_end = 0;
};

} // namespace qrtln
