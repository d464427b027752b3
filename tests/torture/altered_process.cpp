// Preloaded into the processes of a history: they read the model's clock, and calls on files fail,
// or do what they should not, as the environment variable QRTLN_MODEL_FAULTS says: "KIND TEXT
// NUMBER", with ";" between several.
//   read TEXT BYTES     a file whose path holds TEXT ends after so many bytes
//   rename TEXT ERRNO   nothing can be renamed to a path that holds TEXT
//   lookup TEXT ERRNO   a path that holds TEXT cannot be looked up
//   full TEXT NUMBER    the disk is full from this write on to files whose path holds TEXT
// Defects of a client and its module, which a harness must find:
//   unflushed TEXT 1    flushes of a file whose path holds TEXT do nothing
//   in_place TEXT 1     what is renamed to a path that holds TEXT is written over it instead
//   late TEXT 1         what is renamed to a path that holds TEXT comes there at the process's end
#include "tests/support/files.h"
#include "tests/torture/model_clock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sstream>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace qrtln::test;
using namespace qrtln::torture;

struct Fault {
    std::string kind;
    std::string text;
    long number = 0;
};

struct Altered {
    const ModelClock* clock = nullptr;
    std::vector<Fault> faults;

    Altered() {
        if (const char* file = std::getenv(clock_variable))
            clock = &map_clock(file);
        const char* list = std::getenv("QRTLN_MODEL_FAULTS");
        std::istringstream text(list == nullptr ? "" : list);
        for (std::string one; std::getline(text, one, ';');) {
            Fault fault;
            if (std::istringstream(one) >> fault.kind >> fault.text >> fault.number)
                faults.push_back(std::move(fault));
        }
    }
};

const Altered& altered() {
    static const Altered instance;
    return instance;
}

// The number of the fault for this path, or 0.
long fault_of(const char* kind, const char* path) {
    for (const Fault& fault : altered().faults)
        if (fault.kind == kind && path != nullptr &&
            std::strstr(path, fault.text.c_str()) != nullptr)
            return fault.number;
    return 0;
}

long fault_of(const char* kind, int fd) {
    std::array<char, 4096> path{};
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (altered().faults.empty() || ::readlink(link.c_str(), path.data(), path.size() - 1) < 0)
        return 0;
    return fault_of(kind, path.data());
}

template <typename Function>
Function original(Function, const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// Sets errno when a call on this path is to fail.
bool fails(const char* kind, const char* path) {
    long number = fault_of(kind, path);
    if (number != 0)
        errno = static_cast<int>(number);
    return number != 0;
}

timespec model_time() {
    if (altered().clock != nullptr)
        return timespec_of(altered().clock->now());
    timespec now{};
    ::syscall(SYS_clock_gettime, CLOCK_REALTIME, &now);
    return now;
}

// The kernel stamps what was just written with its own time, until the model puts that right.
int timed(int result, struct stat* status) {
    if (result == 0 && altered().clock != nullptr && is_real(status->st_mtim))
        status->st_mtim = model_time();
    return result;
}

// A rename within a folder that waits for the end of the process.
struct LateRename {
    int folder = -1;
    std::string from;
    std::string to;
    ~LateRename() {
        if (folder >= 0)
            ::syscall(SYS_renameat2, folder, from.c_str(), folder, to.c_str(), 0);
    }
} late;

int write_over(const char* from, const char* to) {
    std::string bytes = read_file(from);
    std::ofstream file(to, std::ios::binary);
    file << bytes.substr(0, bytes.size() / 2) << std::flush << bytes.substr(bytes.size() / 2);
    return ::unlink(from);
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t id, timespec* time) noexcept {
    if (id != CLOCK_REALTIME && id != CLOCK_REALTIME_COARSE)
        return static_cast<int>(::syscall(SYS_clock_gettime, id, time));
    *time = model_time();
    return 0;
}

time_t time(time_t* result) noexcept {
    time_t now = model_time().tv_sec;
    if (result != nullptr)
        *result = now;
    return now;
}

// The model's clock stands still meanwhile: nothing is gained by waiting long.
int nanosleep(const timespec* duration, timespec* left) {
    static const auto next = original(&::nanosleep, "nanosleep");
    constexpr timespec moment{0, 1'000'000};
    bool shorter =
        altered().clock != nullptr && (duration->tv_sec > 0 || duration->tv_nsec > moment.tv_nsec);
    return next(shorter ? &moment : duration, left);
}

ssize_t read(int fd, void* buffer, size_t size) {
    static const auto next = original(&::read, "read");
    long end = fault_of("read", fd);
    long position = end > 0 ? ::lseek(fd, 0, SEEK_CUR) : -1;
    if (position >= 0)
        size = std::min(size, static_cast<size_t>(std::max(0L, end - position)));
    return next(fd, buffer, size);
}

// The first one that does not fit writes a part.
ssize_t write(int fd, const void* bytes, size_t size) {
    static const auto next = original(&::write, "write");
    static std::atomic<long> writes = 0;
    long first = fault_of("full", fd);
    long left = first != 0 ? first - ++writes : 1;
    if (left < 0 || (left == 0 && size < 2)) {
        errno = ENOSPC;
        return -1;
    }
    return next(fd, bytes, left == 0 ? size / 2 : size);
}

int fsync(int fd) {
    static const auto next = original(&::fsync, "fsync");
    struct stat status {};
    bool ignored =
        fault_of("unflushed", fd) != 0 && ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    return ignored ? 0 : next(fd);
}

int rename(const char* from, const char* to) noexcept {
    static const auto next = original(&::rename, "rename");
    if (fault_of("in_place", to) != 0)
        return write_over(from, to);
    return fails("rename", to) ? -1 : next(from, to);
}
int renameat(int a, const char* from, int b, const char* to) noexcept {
    static const auto next = original(&::renameat, "renameat");
    return fails("rename", to) ? -1 : next(a, from, b, to);
}
int renameat2(int a, const char* from, int b, const char* to, unsigned flags) noexcept {
    static const auto next = original(&::renameat2, "renameat2");
    if (fault_of("late", to) != 0) {
        late.folder = ::dup(a);
        late.from = from;
        late.to = to;
        return 0;
    }
    return fails("rename", to) ? -1 : next(a, from, b, to, flags);
}
int fstatat(int folder, const char* __restrict path, struct stat* __restrict status,
            int flags) noexcept {
    static const auto next = original(&::fstatat, "fstatat");
    return fails("lookup", path) ? -1 : timed(next(folder, path, status, flags), status);
}
int fstat(int fd, struct stat* status) noexcept {
    static const auto next = original(&::fstat, "fstat");
    return timed(next(fd, status), status);
}
int stat(const char* __restrict path, struct stat* __restrict status) noexcept {
    static const auto next =
        original(static_cast<int (*)(const char*, struct stat*)>(&::stat), "stat");
    return timed(next(path, status), status);
}

} // extern "C"
#pragma GCC visibility pop
