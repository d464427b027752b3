// Groups of calls of the server's library, each in a process of its own: a crash, a hang or an
// exit of the library there is a finding, and not the end of the report. The process is started
// anew like that of the module: with the environment, the working directory and the user that the
// library will have there.
//
// Before each call the process tells which one it is. It is never ended while it answers: when the
// client goes away, or closes its side of the connection, the process does not call that any more,
// and undoes what it has begun on the server.
#pragma once

#include "client/acceptance/probe_request.h"
#include "client/acceptance/report.h"

#include <chrono>

namespace qrtln::acceptance {

// Runs one group and adds its findings; a process that ends before its group does, or that is
// silent for longer than `limit` and then ended, is one with the verdict `stop`, and so is what
// it leaves on the server. Returns whether the report may go on. Throws the ClientError of an
// interruption, after the group is undone; what it could not undo is in the report then.
bool run_probe(Report& report, Group group, const ProbeRequest& request,
               std::chrono::seconds limit);

} // namespace qrtln::acceptance
