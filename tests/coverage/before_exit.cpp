// Preloaded while lines are counted: _exit calls what was registered first.
#include <cstddef>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr std::size_t kMostCalls = 8; // programs and libraries with counts in one process
void (*s_calls[kMostCalls])();
std::size_t s_count = 0;

} // namespace

extern "C" void qrtln_before_exit(void (*call)()) {
    if (s_count < kMostCalls) {
        s_calls[s_count++] = call;
    }
}

extern "C" void _exit(int status) {
    for (std::size_t i = 0; i < s_count; ++i) {
        s_calls[i]();
    }
    for (;;) {
        syscall(SYS_exit_group, status);
    }
}
