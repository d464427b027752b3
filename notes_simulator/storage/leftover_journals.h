// Journals that killed processes left.
#pragma once

#include "notes_simulator/server/server.h"

namespace notes_sim {

/// Rolls back what a killed process left half written in databases of the data directory, so that
/// no journal outlives the database file it belongs to.
void rollBackLeftoverJournals(const Server& server);

} // namespace notes_sim
