// The groups that list the transaction logs, and archive one of them, on a test server.
#pragma once

#include "client/acceptance/probe_request.h"
#include "client/acceptance/teller.h"

namespace qrtln::acceptance {

// Lists the logs that are ready, without having begun an archiving session.
void trial_list_logs(Teller& teller, const ProbeRequest& request);

// Begins a session; lists them again; keeps the first in the folder of the request, compares it,
// tells the server that it is archived, lists again, and ends the session. A session of another is
// left alone.
void trial_mark_log(Teller& teller, const ProbeRequest& request);

} // namespace qrtln::acceptance
