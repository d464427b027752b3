// Writes databases down as owed before they are prepared, and with each the next ones: a flush for
// every single one takes longer than most copies.
#pragma once

#include "client/sets/owed.h"

#include <set>
#include <string>
#include <vector>

namespace qrtln {

class OwedAhead {
  public:
    // `expected`: what is about to be prepared, in any order. The list of owed ones outlives it.
    OwedAhead(OwedDatabases& owed, std::string data_directory, std::vector<std::string> expected)
        : m_owed(owed), m_data_directory(std::move(data_directory)),
          m_expected(std::move(expected)) {}

    // A database is about to be prepared. Throws ClientError, and then it must not be.
    void add(const std::string& path);

    // What was written down and never prepared: the server does not count it as backed up.
    const std::set<std::string>& unprepared() const { return m_unprepared; }
    // Strikes that out, as far as that goes.
    void strike_unprepared() noexcept;

  private:
    OwedDatabases& m_owed;
    std::string m_data_directory;
    std::vector<std::string> m_expected;
    std::size_t m_next = 0; // of the expected
    std::set<std::string> m_unprepared;
};

} // namespace qrtln
