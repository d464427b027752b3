// The groups that only look. None of them starts or changes anything on the server.
#pragma once

#include "client/acceptance/probe_request.h"
#include "client/acceptance/teller.h"

namespace qrtln::acceptance {

// Step runtime: the library, its functions, its start and end; and the same once more.
void probe_start(Teller& teller, const ProbeRequest& request);
void probe_second_start(Teller& teller, const ProbeRequest& request);

// Step names_and_times: the directories, every database's name and three moments there and back.
void probe_names_and_times(Teller& teller, const ProbeRequest& request);

// Step databases: each opened, asked how it is logged, and closed.
void probe_databases(Teller& teller, const ProbeRequest& request);

// Step log_style: what the library says of the transaction log, beside what notes.ini says.
void probe_log_style(Teller& teller, const ProbeRequest& request);

} // namespace qrtln::acceptance
