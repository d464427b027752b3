// The process of one group: it is started by the client, takes the request, and tells its findings.
#pragma once

#include "client/acceptance/probe_request.h"
#include "client/acceptance/report.h"
#include "client/module/own_process.h"

namespace qrtln::acceptance {

Step step_of(Group group);

// How the process is started; what the library writes goes to `output`.
OwnProcessStart probe_process_start(const ProbeRequest& request, int output);

// The first message to it, and the only one.
std::string request_frame(Group group, const ProbeRequest& request);

// Whether the command line is that of such a process.
bool is_probe_process(int argc, char** argv);

// Runs the group of the request. Returns the exit code, 2 when no client started this process.
int run_probe_process(int argc, char** argv);

} // namespace qrtln::acceptance
