// Preloaded into the processes of a history: they read the model's clock, and calls on files fail
// as the environment variable QRTLN_MODEL_FAULTS says: "KIND TEXT NUMBER", with ";" between
// several.
//   read TEXT BYTES     a file whose path holds TEXT ends after so many bytes
//   rename TEXT ERRNO   nothing can be renamed, or linked, to a path that holds TEXT
//   lookup TEXT ERRNO   a path that holds TEXT cannot be looked up
#include "tests/torture/model_clock.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <vector>

namespace {

using qrtln::torture::SharedClock;

struct Fault {
    std::string kind;
    std::string text;
    long number = 0;
};

struct Altered {
    SharedClock* clock = nullptr;
    std::vector<Fault> faults;

    Altered() {
        if (const char* file = std::getenv(qrtln::torture::clock_variable))
            clock = qrtln::torture::map_clock(file);
        const char* list = std::getenv("QRTLN_MODEL_FAULTS");
        std::istringstream text(list == nullptr ? "" : list);
        for (std::string one; std::getline(text, one, ';');) {
            Fault fault;
            if (std::istringstream(one) >> fault.kind >> fault.text >> fault.number)
                faults.push_back(std::move(fault));
        }
    }
    // The number of the fault for this path, or 0.
    long fault_of(const char* kind, const char* path) const {
        for (const Fault& fault : faults)
            if (fault.kind == kind && path != nullptr &&
                std::strstr(path, fault.text.c_str()) != nullptr)
                return fault.number;
        return 0;
    }
};

const Altered& altered() {
    static const Altered instance;
    return instance;
}

template <typename Function>
Function original(Function, const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// Sets errno when a call on this path is to fail.
bool fails(const char* kind, const char* path) {
    long number = altered().fault_of(kind, path);
    if (number != 0)
        errno = static_cast<int>(number);
    return number != 0;
}

// The kernel stamps what was just written with its own time, until the model puts that right.
int timed(int result, struct stat* status) {
    const SharedClock* clock = altered().clock;
    if (result == 0 && clock != nullptr && qrtln::torture::is_real(status->st_mtim)) {
        std::int64_t now = qrtln::torture::now_of(*clock);
        status->st_mtim = {now / qrtln::torture::nanoseconds, now % qrtln::torture::nanoseconds};
    }
    return result;
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

int clock_gettime(clockid_t id, timespec* time) noexcept {
    const SharedClock* clock = altered().clock;
    if (clock == nullptr || (id != CLOCK_REALTIME && id != CLOCK_REALTIME_COARSE))
        return static_cast<int>(::syscall(SYS_clock_gettime, id, time));
    std::int64_t now = qrtln::torture::now_of(*clock);
    *time = {now / qrtln::torture::nanoseconds, now % qrtln::torture::nanoseconds};
    return 0;
}

time_t time(time_t* result) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr)
        *result = now.tv_sec;
    return now.tv_sec;
}

int gettimeofday(timeval* __restrict result, void* __restrict) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    *result = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

ssize_t read(int fd, void* buffer, size_t size) {
    static const auto next = original(&::read, "read");
    if (altered().faults.empty())
        return next(fd, buffer, size);
    std::array<char, 4096> path{};
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (::readlink(link.c_str(), path.data(), path.size() - 1) < 0)
        return next(fd, buffer, size);
    long end = altered().fault_of("read", path.data());
    long position = end > 0 ? ::lseek(fd, 0, SEEK_CUR) : -1;
    if (position >= 0)
        size = std::min(size, static_cast<size_t>(std::max(0L, end - position)));
    return next(fd, buffer, size);
}

int rename(const char* from, const char* to) noexcept {
    static const auto next = original(&::rename, "rename");
    return fails("rename", to) ? -1 : next(from, to);
}
int renameat(int a, const char* from, int b, const char* to) noexcept {
    static const auto next = original(&::renameat, "renameat");
    return fails("rename", to) ? -1 : next(a, from, b, to);
}
int renameat2(int a, const char* from, int b, const char* to, unsigned flags) noexcept {
    static const auto next = original(&::renameat2, "renameat2");
    return fails("rename", to) ? -1 : next(a, from, b, to, flags);
}
int linkat(int a, const char* from, int b, const char* to, int flags) noexcept {
    static const auto next = original(&::linkat, "linkat");
    return fails("rename", to) ? -1 : next(a, from, b, to, flags);
}
int faccessat(int folder, const char* path, int mode, int flags) noexcept {
    static const auto next = original(&::faccessat, "faccessat");
    return fails("lookup", path) ? -1 : next(folder, path, mode, flags);
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
