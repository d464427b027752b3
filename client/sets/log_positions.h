// The order of a server's transaction logs, whose numbers begin anywhere and wrap: after 4294967295
// comes 0.
#pragma once

#include <cstdint>

namespace qrtln {

// Where the logs of one archive are in their order, as they are met: each within half of all
// numbers of the one before it. The first is at its own number.
class LogPositions {
  public:
    std::int64_t of(std::uint32_t number) {
        m_last = m_any ? m_last + distance(LogPositions::number(m_last), number) : number;
        m_any = true;
        return m_last;
    }
    static std::uint32_t number(std::int64_t position) {
        return static_cast<std::uint32_t>(position);
    }
    static bool precedes(std::uint32_t one, std::uint32_t other) {
        return distance(other, one) < 0;
    }

  private:
    static std::int32_t distance(std::uint32_t from, std::uint32_t to) {
        return static_cast<std::int32_t>(to - from);
    }

    std::int64_t m_last = 0;
    bool m_any = false;
};

} // namespace qrtln
