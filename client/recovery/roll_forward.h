// The roll-forward of restored copies by the module, which puts them in place, and what it told of
// each.
#pragma once

#include "client/module/neutral_path.h"
#include "client/module/session.h"
#include "client/recovery/journal_keeper.h"
#include "client/recovery/outcomes.h"
#include "client/recovery/plan.h"
#include "client/recovery/report.h"
#include "client/sets/owed.h"

#include <string>
#include <vector>

namespace qrtln {

class RollForward {
  public:
    // All must outlive this. `owed` may be nullptr where nothing is put in place.
    RollForward(const OperationContext& context, const RecoveryPlan& plan,
                const std::string& tmp_dir, JournalKeeper& keeper, RecoveryReport& report,
                OwedDatabases* owed)
        : m_context(context), m_plan(plan), m_tmp_dir(tmp_dir), m_keeper(keeper), m_report(report),
          m_owed(owed), m_into(plan.into, plan.data_directory) {}

    // Rolls the databases forward, of the plan, whose copies are there: in sessions of the module,
    // until each is told of in the report. What is in place is struck out of the journal after
    // each. Throws ClientError when the module cannot be run.
    void run(std::vector<const RecoveringDatabase*> databases);

  private:
    using Databases = std::vector<const RecoveringDatabase*>;
    // What one session came to.
    struct Round {
        std::string reason;      // of the module; empty: it completed
        std::string failure;     // of the one that failed: what the module added to its reason
        bool one_failed = false; // by itself, so that the others may be tried again
        Databases again;         // failed because another one did
    };

    Databases run_once(const Databases& databases);
    std::vector<std::string> variables(const Databases& databases,
                                       const std::string& temporary) const;
    void take_silence(const RecoveringDatabase& database, const Round& round);
    void take_outcome(const RecoveringDatabase& database, const ToldOutcomes::Told& told,
                      Round& round);
    bool copy_waits(const RecoveringDatabase& database) const;
    void tell_recovered(const RecoveringDatabase& database);

    const OperationContext& m_context;
    const RecoveryPlan& m_plan;
    const std::string& m_tmp_dir;
    JournalKeeper& m_keeper;
    RecoveryReport& m_report;
    OwedDatabases* m_owed;
    NeutralPath m_into;
};

} // namespace qrtln
