// How long the server's library may keep silent, and what follows.
#pragma once

#include <chrono>

namespace qrtln {

class Patience {
  public:
    using Clock = std::chrono::steady_clock;
    enum class Step { wait, tell, give_up };

    // `timeout`: the silence after which to give up; zero: never. That it lasts is to be told after
    // a minute, or half of the timeout where that is sooner, and as long after that again.
    Patience(std::chrono::seconds timeout, Clock::time_point now);

    // Anything that the library says, or a reply, is a sign of life.
    void heard(Clock::time_point now);
    // From now on the silence may last this long at most.
    void limit(std::chrono::seconds timeout, Clock::time_point now);
    // What is due; "tell" is answered once each time.
    Step next_step(Clock::time_point now);
    std::chrono::seconds silence(Clock::time_point now) const;
    // Until something may be due, in milliseconds for poll().
    int milliseconds_left(Clock::time_point now) const;

  private:
    std::chrono::seconds m_timeout;
    std::chrono::milliseconds m_interval{};
    Clock::time_point m_last;
    Clock::time_point m_next_tell;
};

} // namespace qrtln
