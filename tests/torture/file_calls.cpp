#include "tests/torture/file_calls.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace {

// In the order of the table.
enum Name {
    kOpen,
    kClose,
    kFsync,
    kFcntl,
    kFopen,
    kFclose,
    kFread,
    kFgets,
    kFwrite,
    kFputc,
    kFprintf,
    kFseek,
    kFtell,
    kFerror,
    kStat,
    kLstat,
    kFstat,
    kAccess,
    kRealpath,
    kGetcwd,
    kOpendir,
    kReaddir,
    kClosedir,
    kMkdir,
    kChmod,
    kFchmod,
    kFchown,
    kRename,
    kRemove,
};

std::string s_failedPath;
// A stream one of whose transfers has failed, until it is closed.
FILE* s_failedStream = nullptr;

std::string pathOf(int descriptor) {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
}
std::string pathOf(FILE* stream) {
    return pathOf(fileno(stream));
}
std::string pathOf(DIR* directory) {
    return pathOf(dirfd(directory));
}
std::string pathOf(const char* path) {
    return path;
}

// The error that this call is to fail with, or 0. Notes what it is about.
template <typename Subject>
int due(Name name, Subject subject) {
    const int error = dueError(fileCalls()[name]);
    if (error != 0) {
        s_failedPath = pathOf(subject);
        errno = error == kDiskFull || error == kShortWrite ? ENOSPC : error;
    }
    return error;
}

template <typename Function>
Function original(Name name) {
    return reinterpret_cast<Function>(fileCalls()[name].original);
}

// What a failing call answers: no pointer, or -1.
template <typename Result>
Result failure() {
    if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return Result{-1};
    }
}

// A call that does nothing when it fails.
template <Name name, typename Result, typename Subject, typename... Arguments>
Result failing(Subject subject, Arguments... arguments) {
    return due(name, subject) != 0
               ? failure<Result>()
               : original<Result (*)(Subject, Arguments...)>(name)(subject, arguments...);
}

// A call that gives its subject up, failing or not.
template <Name name, typename Subject>
int failingClose(Subject subject) {
    const int error = due(name, subject);
    if constexpr (std::is_same_v<Subject, FILE*>) {
        if (error != 0) {
            __fpurge(subject); // what was not written is what the failure is about
        }
        s_failedStream = s_failedStream == subject ? nullptr : s_failedStream;
    }
    const int result = original<int (*)(Subject)>(name)(subject);
    if (error != 0) {
        errno = error;
    }
    return error != 0 ? -1 : result;
}

int failingOpen(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return due(kOpen, path) != 0
               ? -1
               : original<int (*)(const char*, int, ...)>(kOpen)(path, flags, mode);
}

// The module uses it for locks only.
int failingFcntl(int descriptor, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void* const lock = va_arg(rest, void*);
    va_end(rest);
    return due(kFcntl, descriptor) != 0
               ? -1
               : original<int (*)(int, int, ...)>(kFcntl)(descriptor, command, lock);
}

char* failingGetcwd(char* buffer, std::size_t size) {
    return due(kGetcwd, ".") != 0 ? nullptr
                                  : original<char* (*)(char*, std::size_t)>(kGetcwd)(buffer, size);
}

// Whether a transfer is to fail; the stream remembers it then, as streams do.
int dueTransfer(Name name, FILE* stream) {
    const int error = stream == stderr ? 0 : due(name, stream);
    s_failedStream = error != 0 ? stream : s_failedStream;
    return error;
}

std::size_t failingFread(void* buffer, std::size_t size, std::size_t count, FILE* stream) {
    using Function = std::size_t (*)(void*, std::size_t, std::size_t, FILE*);
    return dueTransfer(kFread, stream) != 0
               ? 0
               : original<Function>(kFread)(buffer, size, count, stream);
}

std::size_t failingFwrite(const void* buffer, std::size_t size, std::size_t count, FILE* stream) {
    using Function = std::size_t (*)(const void*, std::size_t, std::size_t, FILE*);
    const int error = dueTransfer(kFwrite, stream);
    if (error != 0 && error != kShortWrite) {
        return 0;
    }
    const std::size_t written =
        original<Function>(kFwrite)(buffer, size, error != 0 ? count / 2 : count, stream);
    if (error != 0) {
        errno = ENOSPC;
    }
    return written;
}

char* failingFgets(char* line, int size, FILE* stream) {
    return dueTransfer(kFgets, stream) != 0
               ? nullptr
               : original<char* (*)(char*, int, FILE*)>(kFgets)(line, size, stream);
}

int failingFputc(int character, FILE* stream) {
    return dueTransfer(kFputc, stream) != 0
               ? EOF
               : original<int (*)(int, FILE*)>(kFputc)(character, stream);
}

int failingFprintf(FILE* stream, const char* format, ...) {
    if (dueTransfer(kFprintf, stream) != 0) {
        return -1;
    }
    va_list rest;
    va_start(rest, format);
    const int written = std::vfprintf(stream, format, rest);
    va_end(rest);
    return written;
}

int rememberingFerror(FILE* stream) {
    return stream == s_failedStream ? 1 : original<int (*)(FILE*)>(kFerror)(stream);
}

// The wrapper of a function that does nothing when it fails.
template <Name name, typename Result, typename Subject, typename... Arguments>
void* wrap(Result (*)(Subject, Arguments...)) {
    return reinterpret_cast<void*>(&failing<name, Result, Subject, Arguments...>);
}

template <typename Function>
void* address(Function* function) {
    return reinterpret_cast<void*>(function);
}

} // namespace

std::vector<ModuleCall>& fileCalls() {
    static const std::vector<int> kWriteErrors = {ENOSPC, EIO, EINTR};
    static const std::vector<int> kTextErrors = {kDiskFull, EIO, EINTR};
    static const std::vector<int> kReadErrors = {EIO, EINTR};
    static const std::vector<int> kNameErrors = {EACCES, EIO};
    static const std::vector<int> kEntryErrors = {EACCES, ENOSPC, EIO};
    static std::vector<ModuleCall> calls = {
        {"open", "open", address(&failingOpen), {EACCES, EIO, EINTR}},
        {"close", "close", address(&failingClose<kClose, int>), kWriteErrors},
        {"fsync", "fsync", wrap<kFsync>(&fsync), kWriteErrors},
        {"fcntl", "fcntl", address(&failingFcntl), {EACCES, EINTR}},
        {"fopen", "fopen", wrap<kFopen>(&std::fopen), {EACCES, ENOSPC, EIO, EINTR}},
        {"fclose", "fclose", address(&failingClose<kFclose, FILE*>), kWriteErrors},
        {"fread", "fread", address(&failingFread), kReadErrors},
        {"fgets", "fgets", address(&failingFgets), kReadErrors},
        {"fwrite", "fwrite", address(&failingFwrite), {kShortWrite, kDiskFull, ENOSPC, EIO, EINTR}},
        {"fputc", "fputc", address(&failingFputc), kTextErrors},
        {"fprintf", "fprintf", address(&failingFprintf), kTextErrors},
        {"fseek", "fseek", wrap<kFseek>(&std::fseek), kWriteErrors},
        {"ftell", "ftell", wrap<kFtell>(&std::ftell), {EIO}},
        // Says what became of the others, and fails at nothing itself.
        {"ferror", "ferror", address(&rememberingFerror), {}},
        {"stat", "stat", wrap<kStat, int, const char*, struct stat*>(&::stat), kNameErrors},
        {"lstat", "lstat", wrap<kLstat>(&::lstat), kNameErrors},
        {"fstat", "fstat", wrap<kFstat>(&::fstat), {EIO}},
        {"access", "access", wrap<kAccess>(&::access), kNameErrors},
        {"realpath", "realpath", wrap<kRealpath>(&::realpath), kNameErrors},
        {"getcwd", "getcwd", address(&failingGetcwd), {EACCES}},
        {"opendir", "opendir", wrap<kOpendir>(&::opendir), kNameErrors},
        {"readdir", "readdir", wrap<kReaddir>(&::readdir), {EIO}},
        {"closedir", "closedir", address(&failingClose<kClosedir, DIR*>), kReadErrors},
        {"mkdir", "mkdir", wrap<kMkdir>(&::mkdir), kEntryErrors},
        {"chmod", "chmod", wrap<kChmod>(&::chmod), {EPERM, EIO}},
        {"fchmod", "fchmod", wrap<kFchmod>(&::fchmod), {EPERM, EIO}},
        {"fchown", "fchown", wrap<kFchown>(&::fchown), {EPERM, EIO}},
        {"rename", "rename", wrap<kRename>(&::rename), kEntryErrors},
        {"remove", "remove", wrap<kRemove>(&::remove), kNameErrors},
    };
    return calls;
}

bool isUnwrappedFileCall(const std::string& symbol) {
#ifdef QRTLN_COVERAGE
    return symbol.empty(); // what counts the lines makes calls of its own
#endif
    constexpr const char* kUnwrapped[] = {
        "open64",    "openat",   "creat",     "fopen64",   "freopen",
        "fdopen",    "read",     "pread",     "write",     "pwrite",
        "writev",    "fputs",    "puts",      "putc",      "vfprintf",
        "fscanf",    "getline",  "fflush",    "fdatasync", "sync",
        "ftruncate", "truncate", "unlink",    "unlinkat",  "rmdir",
        "link",      "symlink",  "readlink",  "renameat",  "renameat2",
        "mkstemp",   "mkdtemp",  "tmpfile",   "sendfile",  "copy_file_range",
        "fstatat",   "statx",    "statvfs",   "fstatvfs",  "flock",
        "lockf",     "scandir",  "fdopendir", "chown",     "utimensat",
        "futimens",  "mmap"};
    return std::any_of(std::begin(kUnwrapped), std::end(kUnwrapped),
                       [&](const char* name) { return symbol == name; });
}

const std::string& failedPath() {
    return s_failedPath;
}

std::string fileErrorText(int error) {
    return error == kShortWrite ? "short write"
           : error == kDiskFull ? "disk full from here on"
                                : std::strerror(error);
}
