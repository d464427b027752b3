#include "tests/torture/module_calls.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/torture/file_calls.h"

namespace {

unsigned s_failing = 0; // the number of the call that is to fail; 0: none
const ModuleCall* s_failingCall = nullptr;
int s_error = 0;
unsigned s_fired = 0;

enum Allocation { kMalloc, kCalloc, kStrdup, kNew };

std::vector<ModuleCall>& allocations();

bool fails(Allocation name) {
    const int error = dueError(allocations()[name]);
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

template <typename Function>
Function original(Allocation name) {
    return reinterpret_cast<Function>(allocations()[name].original);
}

void* failingMalloc(std::size_t size) {
    return fails(kMalloc) ? nullptr : original<void* (*)(std::size_t)>(kMalloc)(size);
}

void* failingCalloc(std::size_t count, std::size_t size) {
    return fails(kCalloc) ? nullptr
                          : original<void* (*)(std::size_t, std::size_t)>(kCalloc)(count, size);
}

char* failingStrdup(const char* text) {
    return fails(kStrdup) ? nullptr : original<char* (*)(const char*)>(kStrdup)(text);
}

void* failingNew(std::size_t size) {
    if (fails(kNew)) {
        throw std::bad_alloc();
    }
    return original<void* (*)(std::size_t)>(kNew)(size);
}

// In the order of Allocation.
std::vector<ModuleCall>& allocations() {
    static std::vector<ModuleCall> calls = {
        {"malloc", "malloc", reinterpret_cast<void*>(&failingMalloc), {ENOMEM}},
        {"calloc", "calloc", reinterpret_cast<void*>(&failingCalloc), {ENOMEM}},
        {"strdup", "strdup", reinterpret_cast<void*>(&failingStrdup), {ENOMEM}},
        {"new", "_Znwm", reinterpret_cast<void*>(&failingNew), {ENOMEM}},
    };
    return calls;
}

std::vector<ModuleCall>& callsOf(ModuleCalls kind) {
    return kind == ModuleCalls::allocations ? allocations() : fileCalls();
}

// The call of a name; nullptr when there is none.
ModuleCall* findCall(const std::string& name) {
    for (const ModuleCalls kind : {ModuleCalls::allocations, ModuleCalls::files}) {
        for (ModuleCall& call : callsOf(kind)) {
            if (name == call.name) {
                return &call;
            }
        }
    }
    return nullptr;
}

#if defined(__x86_64__)
constexpr unsigned long kSlotTypes[] = {R_X86_64_GLOB_DAT, R_X86_64_JUMP_SLOT};
#elif defined(__aarch64__)
constexpr unsigned long kSlotTypes[] = {R_AARCH64_GLOB_DAT, R_AARCH64_JUMP_SLOT};
#endif

// The tables of a loaded library that tell where it keeps the addresses of other libraries'
// functions.
struct Tables {
    const ElfW(Sym) * symbols = nullptr;
    const char* strings = nullptr;
    const ElfW(Rela) * relocations[2] = {};
    std::size_t counts[2] = {};
};

Tables tablesOf(const link_map& library) {
    Tables tables;
    for (const ElfW(Dyn)* entry = library.l_ld; entry->d_tag != DT_NULL; ++entry) {
        const auto pointer = entry->d_un.d_ptr;
        switch (entry->d_tag) {
        case DT_SYMTAB:
            tables.symbols = reinterpret_cast<const ElfW(Sym)*>(pointer);
            break;
        case DT_STRTAB:
            tables.strings = reinterpret_cast<const char*>(pointer);
            break;
        case DT_JMPREL:
            tables.relocations[0] = reinterpret_cast<const ElfW(Rela)*>(pointer);
            break;
        case DT_PLTRELSZ:
            tables.counts[0] = entry->d_un.d_val / sizeof(ElfW(Rela));
            break;
        case DT_RELA:
            tables.relocations[1] = reinterpret_cast<const ElfW(Rela)*>(pointer);
            break;
        case DT_RELASZ:
            tables.counts[1] = entry->d_un.d_val / sizeof(ElfW(Rela));
            break;
        default:
            break;
        }
    }
    return tables;
}

// Puts the wrapper into one slot, which the loader has made read-only.
void redirect(void** slot, ModuleCall& call) {
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    void* const start =
        reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(slot) & ~(page - 1));
    if (mprotect(start, page, PROT_READ | PROT_WRITE) != 0) {
        throw std::runtime_error("the module's calls cannot be redirected");
    }
    call.original = *slot;
    *slot = call.wrapper;
}

void redirectAll(const link_map& library) {
    const Tables tables = tablesOf(library);
    for (int table = 0; table < 2; ++table) {
        for (std::size_t i = 0; i < tables.counts[table]; ++i) {
            const ElfW(Rela)& relocation = tables.relocations[table][i];
            const auto type = ELF64_R_TYPE(relocation.r_info);
            if (std::find(std::begin(kSlotTypes), std::end(kSlotTypes), type) ==
                std::end(kSlotTypes)) {
                continue;
            }
            const char* symbol =
                tables.strings + tables.symbols[ELF64_R_SYM(relocation.r_info)].st_name;
            if (isUnwrappedFileCall(symbol)) {
                throw std::runtime_error(std::string("the module calls ") + symbol +
                                         ", which has no wrapper in file_calls.cpp");
            }
            for (const ModuleCalls kind : {ModuleCalls::allocations, ModuleCalls::files}) {
                for (ModuleCall& call : callsOf(kind)) {
                    if (std::strcmp(symbol, call.symbol) == 0) {
                        redirect(reinterpret_cast<void**>(library.l_addr + relocation.r_offset),
                                 call);
                    }
                }
            }
        }
    }
}

} // namespace

void armModuleCalls(const std::string& name, unsigned number, int error) {
    void* const module = dlopen(QRTLN_MODULE, RTLD_NOW | RTLD_NOLOAD);
    link_map* library = nullptr;
    if (module == nullptr || dlinfo(module, RTLD_DI_LINKMAP, &library) != 0) {
        throw std::runtime_error("the module is not loaded");
    }
    redirectAll(*library);
    s_failing = number;
    s_failingCall = findCall(name);
    s_error = error;
}

bool isModuleCall(const std::string& name) {
    return findCall(name) != nullptr;
}

bool isModuleCall(const std::string& name, ModuleCalls kind) {
    const std::vector<ModuleCall>& calls = callsOf(kind);
    return std::any_of(calls.begin(), calls.end(),
                       [&](const ModuleCall& call) { return name == call.name; });
}

const std::vector<int>& moduleCallErrors(const std::string& name) {
    return findCall(name)->errors;
}

void disarmModuleCalls() {
    s_failingCall = nullptr;
    s_error = 0;
}

int dueError(ModuleCall& call) {
    ++call.calls;
    if (call.calls == s_failing && &call == s_failingCall) {
        s_fired = 1;
        return s_error;
    }
    const bool lasts =
        s_fired > 0 && s_error == kDiskFull &&
        std::find(call.errors.begin(), call.errors.end(), kDiskFull) != call.errors.end();
    return lasts ? s_error : 0;
}

unsigned moduleFaultsFired() {
    return s_fired;
}

std::map<std::string, unsigned> moduleCallCounts() {
    std::map<std::string, unsigned> counts;
    for (const ModuleCalls kind : {ModuleCalls::allocations, ModuleCalls::files}) {
        for (const ModuleCall& call : callsOf(kind)) {
            if (call.calls > 0) {
                counts[call.name] = call.calls;
            }
        }
    }
    return counts;
}
