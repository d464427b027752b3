// The plan of a restore as a dry run shows it: for a person, and as JSON.
#pragma once

#include "client/restore/plan.h"

#include <nlohmann/json.hpp>
#include <string>

namespace qrtln {

const char* action_name(RestoreAction action);

// What lies at the item's target now, and who uses it: "1.5 MiB of TIME, is replaced, in use by
// 12".
std::string existing_text(const PlannedItem& planned);

std::string plan_text(const RestorePlan& plan);
nlohmann::json plan_json(const RestorePlan& plan);

} // namespace qrtln
