#include "client/module/patience.h"

#include <algorithm>

namespace qrtln {

namespace {

constexpr std::chrono::seconds longest_unsaid{60};

} // namespace

Patience::Patience(std::chrono::seconds timeout, Clock::time_point now) : m_timeout(timeout) {
    limit(timeout, now);
}

void Patience::heard(Clock::time_point now) {
    m_last = now;
    m_next_tell = now + m_interval;
}

void Patience::limit(std::chrono::seconds timeout, Clock::time_point now) {
    m_timeout = timeout;
    m_interval = longest_unsaid;
    if (timeout > timeout.zero())
        m_interval = std::min(m_interval, std::chrono::milliseconds(timeout) / 2);
    heard(now);
}

Patience::Step Patience::next_step(Clock::time_point now) {
    if (m_timeout > m_timeout.zero() && now - m_last >= m_timeout)
        return Step::give_up;
    if (now < m_next_tell)
        return Step::wait;
    m_next_tell = now + m_interval;
    return Step::tell;
}

std::chrono::seconds Patience::silence(Clock::time_point now) const {
    return std::chrono::duration_cast<std::chrono::seconds>(now - m_last);
}

int Patience::milliseconds_left(Clock::time_point now) const {
    Clock::time_point due = m_next_tell;
    if (m_timeout > m_timeout.zero())
        due = std::min(due, m_last + m_timeout);
    auto left = std::chrono::ceil<std::chrono::milliseconds>(due - now).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

} // namespace qrtln
