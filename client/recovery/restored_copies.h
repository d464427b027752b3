// What a recovery takes from the store: checked for damage before anything is touched, then brought
// back, the copies of databases to where they wait, files, folders and logs to their places.
#pragma once

#include "client/module/session.h"
#include "client/recovery/journal_keeper.h"
#include "client/recovery/plan.h"
#include "client/recovery/report.h"
#include "client/restore/plan.h"
#include "client/restore/result.h"

#include <map>
#include <set>
#include <string>
#include <utility>

namespace qrtln {

class RestoredCopies {
  public:
    // All must outlive this.
    RestoredCopies(const OperationContext& context, const JournalKeeper& keeper,
                   RecoveryReport& report)
        : m_context(context), m_keeper(keeper), m_report(report) {}

    // The contents, by path and object, that were found damaged: the next plan passes them over.
    const std::set<std::pair<std::string, std::string>>& damaged() const { return m_damaged; }
    // By path: the object whose copy is there, whole.
    const std::map<std::string, std::string>& whole() const { return m_whole; }

    // Reads the logs that come from the store once. Returns false when damage was found that calls
    // for another plan.
    bool check_logs(const RecoveryLogs& logs);
    // Copies that an earlier run left, or the round before, need not be read from the store again.
    void find_whole(const RecoveryPlan& plan);
    // Restores all that the plan names, and takes databases that failed out of it. Returns false
    // when damage was found that calls for another plan. Throws ClientError when the restore could
    // not be carried out, or a transaction log could not be put back.
    bool restore(RecoveryPlan& plan);
    // Tells damage that an older copy made up for apart from damage that nothing makes up for.
    void tell_damage(const RecoveryPlan& plan);

  private:
    bool check_only_its_set(const RecoveryPlan& plan);
    bool take_result(const RestoreResult& result, const RestorePlan& restored, RecoveryPlan& plan);
    void take_failures(const RestoreResult& result,
                       const std::map<std::string, const PlannedItem*>& planned,
                       RecoveryPlan& plan);
    void note_damage(const PlannedItem& planned, const std::string& reason);

    const OperationContext& m_context;
    const JournalKeeper& m_keeper;
    RecoveryReport& m_report;
    std::set<std::pair<std::string, std::string>> m_damaged;
    std::map<std::string, std::string> m_reasons; // by path: why no set gives it
    std::set<std::string> m_checked_logs;         // objects
    std::map<std::string, std::string> m_whole;
};

} // namespace qrtln
