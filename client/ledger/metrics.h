// The ledger for a monitoring system: the text format that node-exporter's textfile collector
// reads.
#pragma once

#include "client/ledger/ledger.h"

#include <string>

namespace qrtln {

// Times in seconds since 1970. docs/status.md has what each family means.
std::string ledger_metrics(const Ledger& ledger);

} // namespace qrtln
