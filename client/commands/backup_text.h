// What is told of a backup: what its set lacks, and the summary for people and for scripts.
#pragma once

#include "client/sets/manifest.h"

#include <nlohmann/json.hpp>

#include <string>

namespace qrtln {

// complete, items_failed, or logs_missing for a gap in the transaction logs.
int exit_code_of(const Manifest& manifest);

// What to do about a set that is not complete. `log_session`: it was made with --log-session;
// `linear_logging`: the server has that.
std::string incomplete_hint(const Manifest& manifest, bool log_session, bool linear_logging);

// Tells on standard error which transaction logs the chain lacks.
void report_gaps(const Manifest& manifest);

// The summary of a set, lines for a person and a JSON object.
std::string set_lines(const Manifest& manifest);
nlohmann::json set_summary(const Manifest& manifest);

} // namespace qrtln
