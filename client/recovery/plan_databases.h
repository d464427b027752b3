// Which databases a recovery brings back, which it must leave alone, and how far each can come:
// what the sets, the live databases and an earlier run say of them.
#pragma once

#include "client/recovery/instances.h"
#include "client/recovery/plan.h"
#include "client/recovery/planning.h"
#include "client/sets/catalogue.h"

#include <map>
#include <string>

namespace qrtln {

// What a set tells of a database that decides whether logs lead on from its copy.
struct CopyLogging {
    bool is_not_logged = false; // see is_not_logged()
    bool has_dbiid = false;
};

// Why a database comes back as it is in `set`, and no log rolls it forward; empty: logs do.
// `server_logs`: the server has transaction logging.
std::string reason_for_only_its_set(const std::string& path, const CopyLogging& copy,
                                    const std::string& set, bool server_logs,
                                    const StoredLogs& stored);

class DatabasePlanner {
  public:
    // Both must outlive this.
    DatabasePlanner(const RecoveryPlanning& planning, RecoveryPlan& plan)
        : m_planning(planning), m_plan(plan) {}

    // Adds a database of the selection to the plan.
    void take(PlannedItem planned);
    // Compares the live databases and what older copies lead to: databases that may not be replaced
    // become `refused`, those of an earlier run `in_place`. REQUIRES: the plan's server_logs.
    // Throws ClientError(server_error) when the server cannot be asked.
    void compare_instances();
    // Refuses what the module would roll forward together with files of an earlier recovery.
    void refuse_what_reaches_others();

  private:
    bool keep_in_place(RecoveringDatabase& database);
    bool reaches_no_end(const RecoveringDatabase& database);
    std::string reason_against(RecoveringDatabase& database);
    void settle_reach(RecoveringDatabase& database, const std::string& keep, bool restored);
    bool is_destroyed(const PlannedItem& planned) const;
    bool is_restored(const std::string& path) const;
    const CatalogueEntry& set(const std::string& name);

    const RecoveryPlanning& m_planning;
    RecoveryPlan& m_plan;
    SavedCopies m_copies;
    std::map<std::string, CatalogueEntry> m_sets;
};

} // namespace qrtln
