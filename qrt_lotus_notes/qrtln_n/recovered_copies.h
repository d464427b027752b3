// Recovered copies in the place of their originals.
#pragma once

#include <vector>

#include "qrt_lotus_notes/qrtln_n/log_replay.h"
#include "qrt_lotus_notes/qrtln_n/recovery_pairs.h"

// Copies each over its original, deletes the copy, brings the original online (which releases it
// from `offline`) and tells what became of it; reach[i] belongs to pairs[i]. Returns whether every
// copy succeeded.
bool replaceOriginals(const std::vector<RecoveryPair>& pairs, const std::vector<Reach>& reach,
                      OfflineOriginals& offline);
