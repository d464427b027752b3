// What becomes of a recovery, for people and for scripts.
#pragma once

#include "client/recovery/operation.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace qrtln {

// How the recovery ended; and what a dry run can tell of how the real one would.
int exit_code_of(const RecoveryResult& result);
int exit_code_of(const RecoveryPlan& plan);

// Each database with what became of it, as lines and as a JSON object. `to` is the moment that was
// asked for, in seconds since 1970; nothing: the end of the logs.
std::string recovery_text(const RecoveryResult& result, const std::optional<std::int64_t>& to);
nlohmann::json recovery_json(const RecoveryResult& result, const std::optional<std::int64_t>& to);

} // namespace qrtln
