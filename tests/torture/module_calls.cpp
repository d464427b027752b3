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

namespace {

enum Name { kMalloc, kCalloc, kStrdup, kNew, kNames };

struct Redirected {
    const char* name;   // as it is told
    const char* symbol; // as the module names it
    void* wrapper;
    void* original;
    unsigned calls;
};

unsigned s_failing = 0; // the number of the call that is to fail; 0: none
int s_failingName = kNames;
unsigned s_fired = 0;

// Counts a call; whether it is the one that fails.
bool fails(Name name);

void* failingMalloc(std::size_t size);
void* failingCalloc(std::size_t count, std::size_t size);
char* failingStrdup(const char* text);
void* failingNew(std::size_t size);

Redirected s_redirected[kNames] = {
    {"malloc", "malloc", reinterpret_cast<void*>(&failingMalloc), nullptr, 0},
    {"calloc", "calloc", reinterpret_cast<void*>(&failingCalloc), nullptr, 0},
    {"strdup", "strdup", reinterpret_cast<void*>(&failingStrdup), nullptr, 0},
    {"new", "_Znwm", reinterpret_cast<void*>(&failingNew), nullptr, 0},
};

bool fails(Name name) {
    const bool failing = ++s_redirected[name].calls == s_failing && s_failingName == name;
    s_fired += failing ? 1 : 0;
    if (failing) {
        errno = ENOMEM;
    }
    return failing;
}

template <typename Function>
Function original(Name name) {
    return reinterpret_cast<Function>(s_redirected[name].original);
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
void redirect(void** slot, Redirected& call) {
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
            for (Redirected& call : s_redirected) {
                if (std::strcmp(symbol, call.symbol) == 0) {
                    redirect(reinterpret_cast<void**>(library.l_addr + relocation.r_offset), call);
                }
            }
        }
    }
}

} // namespace

void armModuleCalls(const std::string& name, unsigned number) {
    void* const module = dlopen(QRTLN_MODULE, RTLD_NOW | RTLD_NOLOAD);
    link_map* library = nullptr;
    if (module == nullptr || dlinfo(module, RTLD_DI_LINKMAP, &library) != 0) {
        throw std::runtime_error("the module is not loaded");
    }
    redirectAll(*library);
    s_failing = number;
    s_failingName = kNames;
    for (int i = 0; i < kNames; ++i) {
        if (name == s_redirected[i].name) {
            s_failingName = i;
        }
    }
}

bool isModuleCall(const std::string& name) {
    return std::any_of(std::begin(s_redirected), std::end(s_redirected),
                       [&](const Redirected& call) { return name == call.name; });
}

unsigned moduleFaultsFired() {
    return s_fired;
}

std::map<std::string, unsigned> moduleCallCounts() {
    std::map<std::string, unsigned> counts;
    for (const Redirected& call : s_redirected) {
        if (call.calls > 0) {
            counts[call.name] = call.calls;
        }
    }
    return counts;
}
