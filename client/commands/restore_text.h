// What became of a restore, for people and for scripts.
#pragma once

#include "client/restore/operation.h"
#include "client/restore/plan.h"

#include <nlohmann/json.hpp>

#include <string>

namespace qrtln {

// complete, items_failed, or damage_found.
int exit_code_of(const RestoreResult& result);

// What was restored, what waits and why, and what to do about it, as lines; and as a JSON object.
std::string restore_text(const RestoreResult& result);
nlohmann::json restore_json(const RestoreResult& result);

// From which sets the databases came that are in their places now; empty when none is.
std::string taken_text(const RestorePlan& plan, const RestoreResult& result);

} // namespace qrtln
