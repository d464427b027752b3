#include "tests/torture/failing_calls.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <link.h>
#include <map>
#include <new>
#include <span>
#include <stdexcept>
#include <stdio_ext.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <tuple>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace qrtln::torture {

namespace {

const FailingCall* s_call = nullptr; // that is to fail
unsigned s_number = 0;
int s_error = 0;
bool s_fired = false;
std::string s_failed_path;
// A stream one of whose transfers has failed, until it is closed.
FILE* s_failed_stream = nullptr;

// A name as a template's argument.
template <std::size_t size>
struct Symbol {
    char text[size] = {};
    constexpr Symbol(const char (&letters)[size]) { std::copy_n(letters, size, text); }
};

template <Symbol symbol>
FailingCall& call_of() {
    static FailingCall& call = *failing_call(symbol.text);
    return call;
}

// What a call is about: a stream that stands last, or its first argument.
template <typename... Arguments>
auto subject_of(Arguments... arguments) {
    auto all = std::tuple(arguments...);
    auto last = std::get<sizeof...(Arguments) - 1>(all);
    if constexpr (std::is_same_v<decltype(last), FILE*>)
        return last;
    else
        return std::get<0>(all);
}

std::string path_of(int descriptor) {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
}
std::string path_of(FILE* stream) {
    return path_of(fileno(stream));
}
std::string path_of(DIR* directory) {
    return path_of(dirfd(directory));
}
std::string path_of(const char* path) {
    return path;
}
std::string path_of(char* /*of getcwd*/) {
    return ".";
}
std::string path_of(std::size_t /*of an allocation*/) {
    return "";
}

// Counts the call. Returns the error that it is to fail with, or 0, and sets errno.
template <typename Subject>
int due(FailingCall& call, Subject subject) {
    if constexpr (std::is_same_v<Subject, FILE*>)
        if (subject == stderr)
            return 0;
    bool now = ++call.calls == s_number && &call == s_call;
    bool lasts = s_fired && s_error == disk_full &&
                 std::find(call.errors.begin(), call.errors.end(), disk_full) != call.errors.end();
    if (!now && !lasts)
        return 0;
    s_fired = true;
    s_failed_path = path_of(subject);
    errno = s_error >= short_write ? ENOSPC : s_error;
    return s_error;
}

// A call that does nothing when it fails, but that its stream remembers.
template <Symbol symbol, typename Result, typename... Arguments>
Result failing(Arguments... arguments) {
    auto subject = subject_of(arguments...);
    if (due(call_of<symbol>(), subject) == 0)
        return reinterpret_cast<Result (*)(Arguments...)>(call_of<symbol>().original)(arguments...);
    if constexpr (std::is_same_v<decltype(subject), FILE*> && sizeof...(Arguments) > 1)
        s_failed_stream = subject;
    if constexpr (std::is_pointer_v<Result>)
        return nullptr;
    else
        return static_cast<Result>(std::is_signed_v<Result> ? -1 : 0);
}

// A call that gives its subject up, failing or not.
template <Symbol symbol, typename Subject>
int failing_close(Subject subject) {
    int error = due(call_of<symbol>(), subject);
    if constexpr (std::is_same_v<Subject, FILE*>) {
        if (error != 0)
            __fpurge(subject); // what was not written is what the failure is about
        s_failed_stream = s_failed_stream == subject ? nullptr : s_failed_stream;
    }
    int result = reinterpret_cast<int (*)(Subject)>(call_of<symbol>().original)(subject);
    if (error != 0)
        errno = error;
    return error != 0 ? -1 : result;
}

std::size_t failing_fwrite(const void* buffer, std::size_t size, std::size_t count, FILE* stream) {
    int error = due(call_of<"fwrite">(), stream);
    if (error != 0)
        s_failed_stream = stream;
    if (error != 0 && error != short_write)
        return 0;
    std::size_t written = std::fwrite(buffer, size, error != 0 ? count / 2 : count, stream);
    if (error != 0)
        errno = ENOSPC;
    return written;
}

[[gnu::format(printf, 2, 3)]] int failing_fprintf(FILE* stream, const char* format, ...) {
    if (due(call_of<"fprintf">(), stream) != 0) {
        s_failed_stream = stream;
        return -1;
    }
    va_list rest;
    va_start(rest, format);
    int written = std::vfprintf(stream, format, rest);
    va_end(rest);
    return written;
}

int remembering_ferror(FILE* stream) {
    return stream == s_failed_stream ? 1 : std::ferror(stream);
}

void* failing_new(std::size_t size) {
    if (due(call_of<"_Znwm">(), size) != 0)
        throw std::bad_alloc();
    return reinterpret_cast<void* (*)(std::size_t)>(call_of<"_Znwm">().original)(size);
}

template <typename Function>
void* address(Function* function) {
    return reinterpret_cast<void*>(function);
}

template <Symbol symbol, typename Result, typename... Arguments>
void* wrap(Result (*)(Arguments...)) {
    return address(&failing<symbol, Result, Arguments...>);
}

// Calls on files for which there is no replacement.
bool is_unwrapped(const std::string& symbol) {
#ifdef QRTLN_CHECK
    return symbol.empty(); // what counts the lines makes calls of its own
#endif
    static const std::string unwrapped =
        " open64 openat creat fopen64 freopen fdopen fdopendir scandir read pread write pwrite "
        "writev fputs puts putc vfprintf fscanf getline fflush fdatasync sync ftruncate truncate "
        "unlink unlinkat rmdir link symlink readlink renameat renameat2 mkstemp mkdtemp tmpfile "
        "sendfile copy_file_range fstatat statx statvfs fstatvfs flock lockf chown utimensat "
        "futimens mmap ";
    return unwrapped.find(" " + symbol + " ") != std::string::npos;
}

#if defined(__x86_64__)
constexpr unsigned long slot_types[] = {R_X86_64_GLOB_DAT, R_X86_64_JUMP_SLOT};
#elif defined(__aarch64__)
constexpr unsigned long slot_types[] = {R_AARCH64_GLOB_DAT, R_AARCH64_JUMP_SLOT};
#endif

// Puts the replacement into one slot, which the loader has made read-only.
void redirect(ElfW(Addr) slot, FailingCall& call) {
    auto page = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
    void* start = reinterpret_cast<void*>(slot & ~(page - 1));
    if (mprotect(start, page, PROT_READ | PROT_WRITE) != 0)
        throw std::runtime_error("the module's calls cannot be redirected");
    call.original = std::exchange(*reinterpret_cast<void**>(slot), call.replacement);
}

void redirect_all(const link_map& library) {
    std::map<ElfW(Sxword), ElfW(Addr)> tables;
    for (const ElfW(Dyn)* entry = library.l_ld; entry->d_tag != DT_NULL; ++entry)
        tables[entry->d_tag] = entry->d_un.d_ptr;
    const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(tables[DT_SYMTAB]);
    const auto* names = reinterpret_cast<const char*>(tables[DT_STRTAB]);
    for (auto [table, size] : {std::pair{DT_JMPREL, DT_PLTRELSZ}, std::pair{DT_RELA, DT_RELASZ}}) {
        const auto* slots = reinterpret_cast<const ElfW(Rela)*>(tables[table]);
        for (const ElfW(Rela) & slot : std::span(slots, tables[size] / sizeof *slots)) {
            auto type = ELF64_R_TYPE(slot.r_info);
            if (type != slot_types[0] && type != slot_types[1])
                continue;
            const char* symbol = names + symbols[ELF64_R_SYM(slot.r_info)].st_name;
            if (is_unwrapped(symbol))
                throw std::runtime_error(std::string("the module calls ") + symbol +
                                         ", which has no replacement in failing_calls.cpp");
            if (FailingCall* call = failing_call(symbol); call != nullptr)
                redirect(library.l_addr + slot.r_offset, *call);
        }
    }
}

} // namespace

std::vector<FailingCall>& failing_calls() {
    static const std::vector<int> memory = {ENOMEM};
    static const std::vector<int> write = {ENOSPC, EIO, EINTR};
    static const std::vector<int> text = {disk_full, EIO, EINTR};
    static const std::vector<int> read = {EIO, EINTR};
    static const std::vector<int> name = {EACCES, EIO};
    static const std::vector<int> rights = {EPERM, EIO};
    static const std::vector<int> entry = {EACCES, ENOSPC, EIO};
    // Of functions with more arguments at times, those that the module gives.
    static std::vector<FailingCall> calls = {
        {"malloc", wrap<"malloc">(&std::malloc), memory},
        {"calloc", wrap<"calloc">(&std::calloc), memory},
        {"strdup", wrap<"strdup">(&::strdup), memory},
        {"_Znwm", address(&failing_new), memory},
        {"open", address(&failing<"open", int, const char*, int, mode_t>), {EACCES, EIO, EINTR}},
        {"close", address(&failing_close<"close", int>), write},
        {"fsync", wrap<"fsync">(&fsync), write},
        {"fcntl", address(&failing<"fcntl", int, int, int, void*>), {EACCES, EINTR}},
        {"fopen", wrap<"fopen">(&std::fopen), {EACCES, ENOSPC, EIO, EINTR}},
        {"fclose", address(&failing_close<"fclose", FILE*>), write},
        {"fread", wrap<"fread">(&std::fread), read},
        {"fgets", wrap<"fgets">(&std::fgets), read},
        {"fwrite", address(&failing_fwrite), {disk_full, ENOSPC, EIO, EINTR, short_write}},
        {"fputc", wrap<"fputc">(&std::fputc), text},
        {"fprintf", address(&failing_fprintf), text},
        {"fseek", wrap<"fseek">(&std::fseek), write},
        {"ftell", wrap<"ftell">(&std::ftell), {EIO}},
        {"ferror", address(&remembering_ferror), {}}, // says what became of the others
        {"stat", wrap<"stat", int, const char*, struct stat*>(&::stat), name},
        {"lstat", wrap<"lstat">(&::lstat), name},
        {"fstat", wrap<"fstat">(&::fstat), {EIO}},
        {"access", wrap<"access">(&::access), name},
        {"realpath", wrap<"realpath">(&::realpath), name},
        {"getcwd", wrap<"getcwd">(&::getcwd), {EACCES}},
        {"opendir", wrap<"opendir">(&::opendir), name},
        {"readdir", wrap<"readdir">(&::readdir), {EIO}},
        {"closedir", address(&failing_close<"closedir", DIR*>), read},
        {"mkdir", wrap<"mkdir">(&::mkdir), entry},
        {"chmod", wrap<"chmod">(&::chmod), rights},
        {"fchmod", wrap<"fchmod">(&::fchmod), rights},
        {"fchown", wrap<"fchown">(&::fchown), rights},
        {"rename", wrap<"rename">(&::rename), entry},
        {"remove", wrap<"remove">(&::remove), name},
    };
    return calls;
}

FailingCall* failing_call(const std::string& symbol) {
    for (FailingCall& call : failing_calls())
        if (symbol == call.symbol)
            return &call;
    return nullptr;
}

void arm(const std::string& symbol, unsigned number, int error) {
    void* module = dlopen(QRTLN_MODULE, RTLD_NOW | RTLD_NOLOAD);
    link_map* library = nullptr;
    if (module == nullptr || dlinfo(module, RTLD_DI_LINKMAP, &library) != 0)
        throw std::runtime_error("the module is not loaded");
    redirect_all(*library);
    s_call = failing_call(symbol);
    s_number = number;
    s_error = error;
}

void disarm() {
    s_call = nullptr;
    s_error = 0;
}

bool call_has_failed() {
    return s_fired;
}

const std::string& failed_path() {
    return s_failed_path;
}

std::string error_text(int error) {
    return error == short_write ? "short write"
           : error == disk_full ? "disk full from here on"
                                : std::strerror(error);
}

} // namespace qrtln::torture
