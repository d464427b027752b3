// What the facts of one server come to for each of its databases.
#pragma once

#include "client/ledger/ledger.h"
#include "client/ledger/log_reach.h"
#include "client/ledger/server_facts.h"
#include "client/sets/known_damage.h"
#include "client/sets/owed.h"

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qrtln {

// What is on the server now, as far as somebody looked.
struct LiveFiles {
    std::set<std::string> databases;
    std::string data_directory;

    bool has(const std::string& path) const;
};

class ServerJudgement {
  public:
    ServerJudgement(Store& store, KnownDamage& damage, const LedgerRequest& request,
                    ServerFacts facts);
    ServerLedger run();
    std::vector<LedgerFinding> take_findings() { return std::move(m_findings); }

  private:
    void read_owed(Store& store);
    void look_at_server();
    DatabaseLedger judge(const std::string& path, const DatabaseFacts& database);
    void judge_copies(const DatabaseFacts& facts, DatabaseLedger& database);
    // Where a database is now.
    struct Whereabouts {
        bool gone = false;
        std::string why; // or what keeps it from being looked at
    };
    Whereabouts look_for(const std::string& path, const DatabaseFacts& facts) const;
    void settle_age(DatabaseLedger& database) const;
    std::int64_t unchanged_until(const DatabaseFacts& facts) const;
    std::optional<LastProof> last_proof(const std::string& path, const DatabaseFacts& facts) const;
    void add_log_gaps(ServerLedger& server);
    std::int64_t complete_at(const std::string& set) const;

    KnownDamage& m_damage;
    const LedgerRequest& m_request;
    ServerFacts m_facts;
    LogReach m_logs;
    std::optional<OwedDatabases> m_owed;
    std::optional<LiveFiles> m_live;
    bool m_server_logs = true;
    std::vector<LedgerFinding> m_findings;
};

} // namespace qrtln
