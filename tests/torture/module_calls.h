// Failing calls of the module into libc, its allocations and its calls on files: those that its own
// code makes, and nobody else's. The slots through which the loaded module calls other libraries
// are redirected, so that the simulator, the host and the sanitizers are left alone. Calls that a
// library makes on the module's behalf are not reached.
#pragma once

#include <map>
#include <string>
#include <vector>

// A function that the module calls, and what stands in for it.
struct ModuleCall {
    const char* name;   // as it is told
    const char* symbol; // as the module names it
    void* wrapper;
    std::vector<int> errors; // what it can fail with; allocations have just ENOMEM
    void* original = nullptr;
    unsigned calls = 0;
};

// The kinds of calls, each tortured in a part of its own.
enum class ModuleCalls { allocations, files };

// Redirects the loaded module's calls; fails the call of that name and number, from 1 on, with an
// error. With an empty name the calls are counted and none fails. REQUIRES: the module is loaded.
void armModuleCalls(const std::string& name, unsigned number, int error);

// Lets every call succeed from now on.
void disarmModuleCalls();

// Whether a name is one of those that can fail here, of any kind or of one; what it can fail with.
bool isModuleCall(const std::string& name);
bool isModuleCall(const std::string& name, ModuleCalls kind);
const std::vector<int>& moduleCallErrors(const std::string& name);

// Counts a call. Returns the error that it is to fail with, or 0. For wrappers.
int dueError(ModuleCall& call);

// 1 when the fault has fired. How often each call was made since it was armed.
unsigned moduleFaultsFired();
std::map<std::string, unsigned> moduleCallCounts();
