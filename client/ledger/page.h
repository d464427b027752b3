// The ledger as one page for a browser: without outside parts, with a timeline for each database.
#pragma once

#include "client/ledger/ledger.h"

#include <string>

namespace qrtln {

// page.html as it lies: {{policy}}, {{title}} and {{body}} stand for what comes there.
extern const char* const page_template;

// The document. Every name and text in it is text, whatever it holds.
std::string ledger_page(const Ledger& ledger);

} // namespace qrtln
