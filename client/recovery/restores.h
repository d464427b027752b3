// What a recovery restores from the store, as plans of restores.
#pragma once

#include "client/recovery/plan.h"
#include "client/restore/plan.h"

#include <map>
#include <string>

namespace qrtln {

// The copies of databases, which wait in the pending folder, with what is missing beside them; and
// all logs where their folder is lost. `whole` has the paths of those whose copies wait already.
RestorePlan plan_copies(const RecoveryPlan& recovery, const std::string& pending_folder,
                        const std::map<std::string, std::string>& whole);

// The logs that the server no longer has, back into their folder.
RestorePlan plan_extents(const RecoveryPlan& recovery);

// One database that is put in its place as it is in its set.
RestorePlan plan_activation(const RecoveryPlan& recovery, const std::string& pending_folder,
                            const RecoveringDatabase& database);

} // namespace qrtln
