// The child's side of module_host: loads the module and serves one client until it goes away.
#pragma once

#include "client/module/own_process.h"

namespace qrtln {

// The word by which this program is started as the module's process, with the number of its socket.
inline constexpr const char* module_process_word = "module-process";

// How it is started.
OwnProcessStart module_process_start();

// Whether the command line is that of a module's process.
bool is_module_process(int argc, char** argv);

// Serves the requests of the client until it goes away. Returns the exit code, 2 when no client
// started this process.
int run_module_process(int argc, char** argv);

} // namespace qrtln

// Called by the module: turns "gv_rw_times:NAME" into NAME in the store's folder of run-time data,
// in place, within 1028 bytes. Anything else, and what would not fit, stays as it is.
extern "C" void resolve_path(char* path);
