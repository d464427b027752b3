#include "client/base/interrupt.h"

#include "client/base/error.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

namespace {

constexpr std::array interrupting_signals = {SIGINT, SIGTERM, SIGHUP};

std::atomic<int> first_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler sets it");
std::atomic<std::int64_t> first_time{0}; // nanoseconds
std::atomic<bool> came_again{false};
static_assert(std::atomic<std::int64_t>::is_always_lock_free &&
              std::atomic<bool>::is_always_lock_free);
int wake_pipe[2] = {-1, -1};

std::int64_t monotonic_time() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

extern "C" void on_interrupt(int signal) {
    int saved_errno = errno;
    int none = 0;
    constexpr std::int64_t one_second = 1'000'000'000;
    if (first_signal.load() != 0 && first_time.load() != 0 &&
        monotonic_time() - first_time.load() >= one_second)
        came_again = true;
    if (first_signal.compare_exchange_strong(none, signal)) {
        first_time = monotonic_time();
        char byte = 1;
        // The pipe is empty and does not block: one byte fits.
        [[maybe_unused]] ssize_t written = ::write(wake_pipe[1], &byte, 1);
    }
    errno = saved_errno;
}

void mask_interrupts(int how) {
    sigset_t set;
    ::sigemptyset(&set);
    for (int signal : interrupting_signals)
        ::sigaddset(&set, signal);
    ::pthread_sigmask(how, &set, nullptr);
}

} // namespace

bool is_ignored_hangup(int signal) {
    struct sigaction action {};
    return signal == SIGHUP && ::sigaction(signal, nullptr, &action) == 0 &&
           action.sa_handler == SIG_IGN;
}

void install_interrupt_handlers() {
    if (wake_pipe[0] < 0 && ::pipe2(wake_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw ClientError(ExitCode::failed, "cannot create a pipe: " + system_error_text(errno));
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    ::sigemptyset(&action.sa_mask);
    for (int signal : interrupting_signals)
        if (!is_ignored_hangup(signal))
            ::sigaction(signal, &action, nullptr);
    // A reader that went away is an error of write(), not the end of a backup.
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
    // So is a file that would pass the limit of `ulimit -f`.
    ::sigaction(SIGXFSZ, &action, nullptr);
}

int interrupt_signal() {
    return first_signal.load();
}

bool interrupted_again() {
    return came_again.load();
}

int interrupt_descriptor() {
    return wake_pipe[0];
}

void throw_if_interrupted() {
    if (int signal = interrupt_signal(); signal != 0)
        throw ClientError(128 + signal, fmt::format("interrupted by signal {} ({})", signal,
                                                    ::strsignal(signal)));
}

InterruptsBlocked::InterruptsBlocked() {
    mask_interrupts(SIG_BLOCK);
}
InterruptsBlocked::~InterruptsBlocked() {
    mask_interrupts(SIG_UNBLOCK);
}

} // namespace qrtln
