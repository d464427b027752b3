// The ledger for a person and for a script.
#pragma once

#include "client/ledger/ledger.h"

#include <nlohmann/json.hpp>
#include <string>

namespace qrtln {

// The verdict, what needs attention, then a table for each server.
std::string ledger_text(const Ledger& ledger);

// Without the name of the command.
nlohmann::json ledger_json(const Ledger& ledger);

// "recoverable, as saved in 3 sets"; for a database that no logs lead on from.
std::string state_text(const DatabaseLedger& database);

// "STORE: SERVER: ", as far as there is one.
std::string place_of(const LedgerFinding& finding);
// How old what the store has of it is, "-" without a copy.
std::string age_text(const DatabaseLedger& database, std::int64_t now);

// "3 d 04 h", as ages are told: two units.
std::string long_duration(std::int64_t seconds);

// "proven 2026-…", "failed 2026-…", "-".
std::string proof_text(const std::optional<LastProof>& proof);

} // namespace qrtln
