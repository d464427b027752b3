// Failing allocations of the module: the calls that its own code makes, and nobody else's. The
// slots through which the loaded module calls other libraries are redirected, so that the
// simulator, the host and the sanitizers are left alone. Calls that a library makes on the module's
// behalf are not reached.
#pragma once

#include <map>
#include <string>

// Redirects the loaded module's calls; fails the call of that name and number, from 1 on. With an
// empty name the calls are counted and none fails. REQUIRES: the module is loaded.
void armModuleCalls(const std::string& name, unsigned number);

// Whether a name is one of those that can fail here.
bool isModuleCall(const std::string& name);

// 1 when the fault has fired. How often each call was made since it was armed.
unsigned moduleFaultsFired();
std::map<std::string, unsigned> moduleCallCounts();
