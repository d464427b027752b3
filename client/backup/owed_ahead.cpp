#include "client/backup/owed_ahead.h"

namespace qrtln {

namespace {

// A run that is killed owes as many at most that it had not prepared: the next one stores them.
constexpr std::size_t at_once = 64;

} // namespace

void OwedAhead::add(const std::string& path) {
    if (m_owed.has(m_data_directory, path)) {
        m_unprepared.erase(path);
        return;
    }
    std::vector<std::string> added = {path};
    for (; m_next < m_expected.size() && added.size() < at_once; ++m_next)
        if (m_expected[m_next] != path && !m_owed.has(m_data_directory, m_expected[m_next]))
            added.push_back(m_expected[m_next]);
    m_owed.add(m_data_directory, added);
    m_unprepared.insert(added.begin() + 1, added.end());
}

void OwedAhead::strike_unprepared() noexcept {
    try {
        (void)m_owed.strike(m_data_directory, {m_unprepared.begin(), m_unprepared.end()});
        m_unprepared.clear();
    } catch (...) { // they are stored once more
    }
}

} // namespace qrtln
