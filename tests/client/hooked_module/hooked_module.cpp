// The database module with shell commands of a test between its calls: what happens to a server, or
// to the module, while a backup or restore is on its way.
//
// The script QRTLN_TEST_HOOK runs with these variables:
//   CALL  get       an item was handed out
//         prepare   it is to be prepared
//         prepared  it was prepared
//         set       it is to be restored
//         finish    the client is done with it
//   ITEM  its path; READY  the file to read it from
// A script that fails fails the call; each line of its output is one of the module's log.
#include "qrt_lotus_notes/db_interface.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>

namespace {

TYPE_DB_MessageFunc module_log = nullptr;

// The function of this name of the real module, which this library is linked with.
template <typename Function>
Function* real(Function* /*type*/, const char* name) {
    static void* module = ::dlopen(QRTLN_REAL_MODULE, RTLD_NOW | RTLD_NOLOAD);
    return reinterpret_cast<Function*>(::dlsym(module, name));
}

bool hook(const char* call) {
    ::setenv("CALL", call, 1);
    std::puts("noise of a library"); // the client's own output must not have it
    std::fflush(stdout);
    const char* script = std::getenv("QRTLN_TEST_HOOK");
    FILE* output = ::popen(script != nullptr ? script : "", "r");
    std::array<char, 4096> line{};
    while (std::fgets(line.data(), line.size(), output) != nullptr) {
        line[std::strcspn(line.data(), "\n")] = '\0';
        module_log(line.data());
    }
    return ::pclose(output) == 0;
}

} // namespace

extern "C" {

int DB_SetLog(TYPE_DB_MessageFunc function) {
    module_log = function;
    return real(&DB_SetLog, "DB_SetLog")(function);
}

int DB_GetItem(char* backup, char* original, char* name) {
    int status = real(&DB_GetItem, "DB_GetItem")(backup, original, name);
    if (status != DB_NUM_I_OK)
        return status;
    ::setenv("ITEM", name, 1);
    return hook("get") ? status : DB_NUM_E_FAILED;
}

int DB_PrepareItem(const char* item, char* file) {
    if (!hook("prepare"))
        return DB_NUM_E_ITEM_FAILED;
    int status = real(&DB_PrepareItem, "DB_PrepareItem")(item, file);
    ::setenv("READY", file, 1);
    return hook("prepared") ? status : DB_NUM_E_ITEM_FAILED;
}

int DB_SetItem(DB_ITEM_TYPE type, char* item) {
    ::setenv("ITEM", item, 1);
    return hook("set") ? real(&DB_SetItem, "DB_SetItem")(type, item) : DB_NUM_E_ITEM_FAILED;
}

int DB_ItemFinishStatus(DB_ITEM_RESULT result) {
    hook("finish");
    return real(&DB_ItemFinishStatus, "DB_ItemFinishStatus")(result);
}
}
