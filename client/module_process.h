// The child's side of module_host: loads the module and serves one client until it goes away.
#pragma once

#include "client/module_host.h"

namespace qrtln {

// Serves requests on `socket` and ends the process. `parent` is the client's process id.
// REQUIRES: called right after fork(), with the interrupting signals blocked.
[[noreturn]] void run_module_process(int socket, const ModuleOptions& options, pid_t parent);

} // namespace qrtln

// Called by the module: turns "gv_rw_times:NAME" into NAME in the store's folder of run-time data,
// in place, within 1028 bytes. Anything else, and what would not fit, stays as it is.
extern "C" void resolve_path(char* path);
