// Waiting for what others do on the server, for so long in all of a run.
#pragma once

#include "client/module/told.h"

#include <chrono>

namespace qrtln {

inline constexpr unsigned default_busy_wait = 60; // seconds

// Whether the server refuses a backup of a database because another one or a compaction of it is
// running, or a program has it to itself: it may go a moment later.
bool is_busy(const ServerStatus& status);

class BusyWait {
  public:
    explicit BusyWait(std::chrono::seconds limit) : m_limit(limit), m_left(limit) {}

    // Waits a moment before another try. Returns false, at once, when the time of the run is used
    // up, and as soon as a signal has come.
    bool pause();

    std::chrono::seconds limit() const { return m_limit; }
    // Rounded up.
    std::chrono::seconds left() const { return std::chrono::ceil<std::chrono::seconds>(m_left); }

  private:
    std::chrono::seconds m_limit;
    std::chrono::milliseconds m_left;
};

} // namespace qrtln
