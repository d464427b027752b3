#include "client/recovery/report.h"

#include "client/base/output.h"
#include "client/base/text.h"

#include <fmt/format.h>

namespace qrtln {

DatabaseRecovery& RecoveryReport::tell(const RecoveringDatabase& database, RecoveryOutcome outcome,
                                       const std::string& reason) {
    const PlannedItem& planned = database.planned;
    if (outcome == RecoveryOutcome::waiting || outcome == RecoveryOutcome::failed)
        print_message(fmt::format("not recovered: {}: {}", for_terminal(planned.item.path),
                                  for_terminal(reason)));
    m_told.insert(planned.item.path);
    return m_result.databases.emplace_back(DatabaseRecovery{
        planned.item.path, planned.target, planned.set, database.set_ended, outcome, reason,
        database.only_its_set.empty(), database.same_instance, database.same_until});
}

void RecoveryReport::warn(const std::vector<std::string>& warnings) {
    m_result.warnings.insert(m_result.warnings.end(), warnings.begin(), warnings.end());
}

void RecoveryReport::forget_round() {
    m_result.restored.clear();
    m_result.failed.clear();
    std::erase_if(m_result.databases, [this](const DatabaseRecovery& database) {
        bool again = database.outcome == RecoveryOutcome::failed;
        if (again)
            m_told.erase(database.path);
        return again;
    });
}

} // namespace qrtln
