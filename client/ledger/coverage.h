// To which moments a database can be recovered: what a recovery decides for one moment, decided for
// all of them.
#pragma once

#include "client/ledger/ledger.h"
#include "client/ledger/log_reach.h"
#include "client/ledger/server_facts.h"

#include <string>
#include <vector>

namespace qrtln {

// How the newest copy stands.
enum class CoverageEnd {
    stored_logs, // logs lead on to the end of those that are stored
    as_saved,    // nothing leads on from it, and nothing was to
    restored,    // a restore put in place what no set has
    damaged,     // no copy leads to where it did
    log_gap,     // logs should lead on, and do not
};

struct Coverage {
    std::vector<Window> windows;
    std::vector<CoverageGap> gaps;
    CoverageEnd end = CoverageEnd::as_saved;
    std::string why;                // of the end
    std::vector<std::string> notes; // damaged copies that others make up for
};

// What is known beside the copies.
struct CoverageSituation {
    LogReach& logs;
    KnownDamage& damage;
    bool server_logs = true; // the server has transaction logging
    bool restored = false;   // a restore put it in place, and it is not saved since
    std::int64_t now = 0;    // seconds since 1970
};

// REQUIRES: it has a copy.
Coverage cover(const std::string& path, const DatabaseFacts& database,
               const CoverageSituation& situation);

} // namespace qrtln
