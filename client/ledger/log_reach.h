// How far the stored logs alone lead on from a set, as a recovery takes them.
#pragma once

#include "client/recovery/stored_logs.h"
#include "client/sets/log_chain.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct Reach {
    std::optional<std::int64_t> until; // seconds since 1970; nothing: to no moment behind the set
    std::string missing;               // which logs end it, and between which sets; empty: none do
};

class LogReach {
  public:
    // `links` are those of all sets of the server, without logs that are damaged.
    LogReach(StoredLogs stored, const std::vector<ChainLink>& links)
        : m_stored(std::move(stored)), m_gaps(find_log_gaps(links)) {}

    const StoredLogs& stored() const { return m_stored; }
    // The gaps in the chain of all sets.
    const std::vector<LogGap>& gaps() const { return m_gaps; }
    // Of the databases that a set holds.
    const Reach& of(const std::string& set);

  private:
    Reach look_at(const std::string& set) const;
    std::string missing_text(std::uint32_t first, std::uint32_t last) const;

    StoredLogs m_stored;
    std::vector<LogGap> m_gaps;
    std::map<std::string, Reach> m_known;
};

} // namespace qrtln
