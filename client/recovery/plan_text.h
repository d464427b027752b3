// The plan of a recovery as a dry run shows it: for a person, and as JSON.
#pragma once

#include "client/recovery/plan.h"

#include <nlohmann/json.hpp>
#include <string>

namespace qrtln {

std::string plan_text(const RecoveryPlan& plan);
nlohmann::json plan_json(const RecoveryPlan& plan);

// Which logs a recovery of restored databases would need, in a line and one for each log from the
// store.
std::string later_recovery_text(const LaterRecovery& later);
nlohmann::json later_recovery_json(const LaterRecovery& later);

} // namespace qrtln
