// What a recovery came to: the result, and how it is gathered while the recovery runs.
#pragma once

#include "client/recovery/outcomes.h"
#include "client/recovery/plan.h"
#include "client/restore/result.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

struct RecoveryResult {
    std::vector<DatabaseRecovery> databases;
    std::vector<FailedRestore> failed;   // files and folders, and databases that the plan refused
    std::vector<FailedRestore> damaged;  // no set has a whole copy
    std::vector<FailedRestore> replaced; // an older copy took the place of a damaged one
    std::vector<std::string> restored;   // files and folders
    std::vector<std::string> warnings;
    std::string pending_folder;           // where copies wait; empty: none does
    bool logs_end_early = false;          // the server's own logs were lost
    std::optional<std::int64_t> logs_end; // where the stored ones end, if known
    std::uint64_t bytes = 0;              // written from the store
};

// Each database is told of once.
class RecoveryReport {
  public:
    // Notes what became of a database, and prints a message when it is not in its place. What is
    // returned is valid until the next call.
    DatabaseRecovery& tell(const RecoveringDatabase& database, RecoveryOutcome outcome,
                           const std::string& reason = {});
    // By the path of the original.
    bool has_told_of(const std::string& path) const { return m_told.contains(path); }
    void warn(std::string warning) { m_result.warnings.push_back(std::move(warning)); }
    void warn(const std::vector<std::string>& warnings);
    // Drops what the next round tells again: what failed, and what came back beside the databases.
    void forget_round();

    RecoveryResult& result() { return m_result; }
    const std::vector<DatabaseRecovery>& databases() const { return m_result.databases; }

  private:
    RecoveryResult m_result;
    std::set<std::string> m_told; // paths
};

} // namespace qrtln
