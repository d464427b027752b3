#include "client/base/lock_wait.h"

#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"

#include <algorithm>
#include <fmt/format.h>
#include <poll.h>

namespace qrtln {

namespace {

using LockClock = std::chrono::steady_clock;

// A lock cannot be waited for with a limit, and not at all where a signal is to end it for sure.
constexpr std::chrono::milliseconds between_tries{100};

LockClock::duration lock_time_left{0};
bool lock_was_waited_for = false;

void sleep_or_be_interrupted(LockClock::duration time) {
    pollfd signals = {interrupt_descriptor(), POLLIN, 0};
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(time);
    ::poll(&signals, 1, static_cast<int>(wait.count()));
    throw_if_interrupted();
}

} // namespace

void set_lock_wait(std::chrono::seconds longest) {
    lock_time_left = longest;
}

bool waited_for_lock() {
    return lock_was_waited_for;
}

bool wait_for_lock(const std::function<bool()>& take, const std::function<std::string()>& refused) {
    if (take())
        return true;
    if (lock_time_left <= LockClock::duration::zero())
        return false;
    lock_was_waited_for = true;
    print_message(
        fmt::format("waiting up to {}: {}",
                    human_duration(std::chrono::ceil<std::chrono::seconds>(lock_time_left).count()),
                    refused()));
    const LockClock::time_point end = LockClock::now() + lock_time_left;
    bool taken = false;
    while (!taken && lock_time_left > LockClock::duration::zero()) {
        sleep_or_be_interrupted(std::min<LockClock::duration>(between_tries, lock_time_left));
        taken = take();
        lock_time_left = std::max(end - LockClock::now(), LockClock::duration::zero());
    }
    return taken;
}

} // namespace qrtln
