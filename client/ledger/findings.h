// What the ledger of a server comes to: what is wrong, and what to do about it.
#pragma once

#include "client/ledger/ledger.h"

#include <vector>

namespace qrtln {

// Of one server. Databases of one state are one finding, which names a few of them.
std::vector<LedgerFinding> findings_of(const ServerLedger& server, const LedgerRequest& request);

// The worst first, those of one kind in the order in which they came.
void sort_by_weight(std::vector<LedgerFinding>& findings);

// The exit code that a database in this state gives the command.
int code_of(LedgerState state);

} // namespace qrtln
