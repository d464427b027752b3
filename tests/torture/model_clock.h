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

// Whether a file has the time of the kernel.
inline bool is_real(const timespec& time) {
    constexpr std::int64_t longest_history = 150 * 24 * 3600;
    return time.tv_sec > first_moment + longest_history;
}

// What the file holds. The time is that of `since` on the monotonic clock, and goes on `rate` times
// as fast as that.
struct SharedClock {
    std::int64_t time = 0;  // nanoseconds since 1970
    std::int64_t since = 0; // nanoseconds of the monotonic clock
    std::int64_t rate = 0;
};

// Past the calls that the altered process replaces.
inline std::int64_t monotonic_now() {
    timespec now{};
    ::syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return now.tv_sec * nanoseconds + now.tv_nsec;
}

inline std::int64_t now_of(const SharedClock& clock) {
    return clock.time + (monotonic_now() - clock.since) * clock.rate;
}

// Maps the file; nullptr when that fails.
inline SharedClock* map_clock(const std::string& file) {
    int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    void* place = ::mmap(nullptr, sizeof(SharedClock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    return place == MAP_FAILED ? nullptr : static_cast<SharedClock*>(place);
}

class ModelClock {
  public:
    explicit ModelClock(const std::string& file) : m_clock(map_clock(file)) {
        if (m_clock == nullptr)
            throw std::runtime_error("cannot map the clock " + file);
    }
    std::int64_t now() const { return now_of(*m_clock); }
    void set(std::int64_t time, std::int64_t rate = 0) { *m_clock = {time, monotonic_now(), rate}; }
    void advance(std::int64_t by) { set(now() + by); }
    void go(std::int64_t rate) { set(now(), rate); }

  private:
    SharedClock* m_clock;
};

} // namespace qrtln::torture
