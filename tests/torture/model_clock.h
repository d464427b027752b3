// A clock of the model's own, which every process of a history reads: it stands still between
// steps, and is put back and forward.
#pragma once

#include <cstdint>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace qrtln::torture {

// The environment variable that names the file which the processes share.
inline constexpr const char* clock_variable = "QRTLN_MODEL_CLOCK";
constexpr std::int64_t nanoseconds = 1'000'000'000;

// When histories begin, in seconds since 1970: 2026-03-01 12:00:00 UTC. None gets as far as the
// real clock is.
constexpr std::int64_t first_moment = 1'772'366'400;

inline timespec timespec_of(std::int64_t time) {
    return {time / nanoseconds, time % nanoseconds};
}

// Whether a file has the time of the kernel.
inline bool is_real(const timespec& time) {
    constexpr std::int64_t longest_history = 150 * 24 * 3600;
    return time.tv_sec > first_moment + longest_history;
}

// What the file holds. The time is that of `since` on the monotonic clock, and goes on `rate` times
// as fast as that.
struct ModelClock {
    std::int64_t time = 0;  // nanoseconds since 1970
    std::int64_t since = 0; // nanoseconds of the monotonic clock
    std::int64_t rate = 0;

    // Past the calls that the altered process replaces.
    static std::int64_t monotonic_now() {
        timespec now{};
        ::syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
        return now.tv_sec * nanoseconds + now.tv_nsec;
    }
    std::int64_t now() const { return time + (monotonic_now() - since) * rate; }
    void set(std::int64_t to, std::int64_t at_rate = 0) { *this = {to, monotonic_now(), at_rate}; }
    void advance(std::int64_t by) { set(now() + by); }
    void go(std::int64_t at_rate) { set(now(), at_rate); }
};

// Maps the file that has it.
inline ModelClock& map_clock(const std::string& file) {
    int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    void* place = ::mmap(nullptr, sizeof(ModelClock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (place == MAP_FAILED)
        throw std::runtime_error("cannot map the clock " + file);
    return *static_cast<ModelClock*>(place);
}

} // namespace qrtln::torture
