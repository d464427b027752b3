// How locks are waited for that other processes have.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace qrtln {

// How long this run waits for locks, in all: not at all unless this was called.
void set_lock_wait(std::chrono::seconds longest);

// Calls `take`, which must not wait, until it returns true, and returns true; false when the time
// is over. Once it waits that is said, with what `refused` tells of who has the lock. Throws the
// ClientError of an interruption.
bool wait_for_lock(const std::function<bool()>& take, const std::function<std::string()>& refused);

// What to do about a lock that another process has, as a hint.
inline constexpr const char* locked_hint =
    "wait until it has ended, or have it waited for: --lock-wait 1h";

// Whether this run waited for a lock: what it looked at before may be otherwise now.
bool waited_for_lock();

} // namespace qrtln
