#include "client/ledger/coverage.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>
#include <set>
#include <utility>

namespace qrtln {

namespace {

constexpr std::int64_t forever = std::numeric_limits<std::int64_t>::max();

// How far one copy leads.
struct CopyReach {
    std::optional<std::int64_t> until; // nothing: to no moment but its own
    CoverageEnd end = CoverageEnd::as_saved;
    std::string why; // it leads no further
};

class Judgement {
  public:
    Judgement(const std::string& path, const DatabaseFacts& database,
              const CoverageSituation& situation)
        : m_path(path), m_copies(database.copies), m_facts(database.facts), m_situation(situation) {
    }
    Coverage run();

  private:
    bool has_damage(std::size_t copy) const {
        return m_situation.damage.has(m_copies[copy].object, m_facts[copy].map);
    }
    bool is_damaged(std::size_t copy);
    bool is_inner(std::size_t copy) const;
    CopyReach reach_of(std::size_t copy) const;
    CopyReach without_doubt(std::size_t copy, CopyReach reach) const;
    void add(const CopyReach& reach, std::int64_t from, std::int64_t until);
    void add_damaged(std::size_t copy, std::int64_t until);
    void add_gap(std::int64_t from, std::int64_t until, const std::string& why);

    const std::string& m_path;
    const std::vector<SavedCopy>& m_copies;
    const std::vector<CopyFacts>& m_facts;
    const CoverageSituation& m_situation;
    std::set<std::string> m_damaged; // objects
    Coverage m_coverage;
};

// Of each copy until when a recovery takes it: the newest set counts that was complete by then, of
// times that the clock showed twice the later one.
std::vector<std::int64_t> taken_until(const std::vector<CopyFacts>& copies) {
    std::vector<std::int64_t> until(copies.size(), forever);
    for (std::size_t copy = copies.size(); copy > 1; --copy)
        until[copy - 2] = std::min(until[copy - 1], copies[copy - 1].from - 1);
    return until;
}

// Where the logs lead from a whole copy before this one of the same instance to the same end, this
// one does not matter, and it costs a look at its map.
bool Judgement::is_inner(std::size_t copy) const {
    if (copy == 0 || copy + 1 == m_copies.size() || m_facts[copy].logging.is_not_logged)
        return false;
    const SavedCopy& before = m_copies[copy - 1];
    const SavedCopy& one = m_copies[copy];
    if (one.dbiid.empty() || one.dbiid != before.dbiid || one.restored ||
        m_damaged.contains(before.object))
        return false;
    const Reach& from_before = m_situation.logs.of(before.set);
    return from_before.until && from_before.missing.empty() &&
           from_before.until == m_situation.logs.of(one.set).until;
}

bool Judgement::is_damaged(std::size_t copy) {
    if (is_inner(copy) || !has_damage(copy))
        return false;
    m_damaged.insert(m_copies[copy].object);
    return true;
}

CopyReach Judgement::reach_of(std::size_t copy) const {
    const std::string& set = m_copies[copy].set;
    std::string only_its_set = reason_for_only_its_set(
        m_path, m_facts[copy].logging, set, m_situation.server_logs, m_situation.logs.stored());
    const Reach& logs = m_situation.logs.of(set);
    if (only_its_set == not_logged_reason || only_its_set == template_reason)
        return {{}, CoverageEnd::as_saved, only_its_set};
    if (only_its_set == logging_off_reason)
        return {{}, CoverageEnd::log_gap, only_its_set};
    if (!only_its_set.empty())
        return {{}, CoverageEnd::log_gap, fmt::format("{}, in the set {}", only_its_set, set)};
    if (!logs.missing.empty())
        return without_doubt(copy, {logs.until, CoverageEnd::log_gap, logs.missing});
    if (!logs.until)
        return {{}, CoverageEnd::as_saved, "no set holds transaction logs"};
    return without_doubt(copy, {logs.until, CoverageEnd::stored_logs, "the stored logs end"});
}

// Up to where it is sure that the database was this instance.
CopyReach Judgement::without_doubt(std::size_t copy, CopyReach reach) const {
    const std::string& set = m_copies[copy].set;
    if (!reach.until)
        return reach;
    std::string doubt =
        reason_for_doubt(m_copies, set, *reach.until, nullptr, m_situation.restored);
    const std::int64_t sure = same_instance_until(m_copies, set) - 1;
    if (doubt.empty() || sure >= *reach.until)
        return reach;
    return {sure, CoverageEnd::restored, doubt};
}

void Judgement::add_gap(std::int64_t from, std::int64_t until, const std::string& why) {
    if (from > until)
        return;
    const bool is_open = until == forever;
    if (is_open)
        until = std::max(from, m_situation.now);
    // Single copies between are no end of what keeps the moments around them away.
    if (!m_coverage.gaps.empty() && m_coverage.gaps.back().why == why) {
        m_coverage.gaps.back().until = until;
        m_coverage.gaps.back().is_open = is_open;
        return;
    }
    m_coverage.gaps.push_back({from, until, is_open, why});
}

void Judgement::add(const CopyReach& reach, std::int64_t from, std::int64_t until) {
    std::vector<Window>& windows = m_coverage.windows;
    if (!reach.until || *reach.until < from) {
        windows.push_back({from, from, false});
    } else {
        const std::int64_t end = std::min(*reach.until, until);
        if (!windows.empty() && windows.back().any_moment && windows.back().until + 1 >= from)
            windows.back().until = std::max(windows.back().until, end);
        else
            windows.push_back({from, end, true});
    }
    // What the newest logs do not reach yet the next ones do.
    if (reach.end == CoverageEnd::log_gap || reach.end == CoverageEnd::restored)
        add_gap(windows.back().until + 1, until, reach.why);
    if (until == forever) {
        m_coverage.end = reach.end;
        m_coverage.why = reach.why;
    }
}

// An older copy makes up for it where the logs lead from that to the same end.
void Judgement::add_damaged(std::size_t copy, std::int64_t until) {
    const SavedCopy& damaged = m_copies[copy];
    std::string why = fmt::format("the copy in the set {} is damaged", damaged.set);
    std::size_t older = copy;
    while (older > 0 && has_damage(older - 1))
        --older;
    std::string against =
        older == 0 ? "there is no older one"
                   : reason_against_older(m_copies, m_copies[older - 1].set, {damaged.object});
    CopyReach reach = older == 0 ? CopyReach{} : reach_of(older - 1);
    const std::int64_t from = m_facts[copy].from;
    if (against.empty() && reach.until && reach.end == CoverageEnd::stored_logs) {
        // Where the stored logs end before this copy did the window of the older has them all.
        if (*reach.until >= from)
            add(reach, from, until);
        else if (until == forever)
            m_coverage.end = reach.end;
        m_coverage.notes.push_back(fmt::format("{}: the one in {} is taken, with more logs", why,
                                               m_copies[older - 1].set));
        return;
    }
    if (!against.empty())
        why += "; " + against;
    add_gap(from, until, why);
    if (until != forever)
        return;
    m_coverage.end = CoverageEnd::damaged;
    m_coverage.why = why;
}

Coverage Judgement::run() {
    const std::vector<std::int64_t> until = taken_until(m_facts);
    for (std::size_t copy = 0; copy < m_copies.size(); ++copy) {
        const std::int64_t from = m_facts[copy].from;
        const bool damaged = is_damaged(copy);
        if (from > until[copy])
            continue; // the clock was set back: no moment chooses it
        if (damaged)
            add_damaged(copy, until[copy]);
        else
            add(reach_of(copy), from, until[copy]);
    }
    auto by_time = [](const auto& one, const auto& other) { return one.from < other.from; };
    std::stable_sort(m_coverage.windows.begin(), m_coverage.windows.end(), by_time);
    std::stable_sort(m_coverage.gaps.begin(), m_coverage.gaps.end(), by_time);
    if (m_situation.restored && m_coverage.end != CoverageEnd::damaged &&
        m_coverage.end != CoverageEnd::log_gap) {
        m_coverage.end = CoverageEnd::restored;
        m_coverage.why = fmt::format("a restore or recovery put it in place, or began to, since "
                                     "the set {}, and it is not saved since",
                                     m_copies.back().set);
    }
    return std::move(m_coverage);
}

} // namespace

Coverage cover(const std::string& path, const DatabaseFacts& database,
               const CoverageSituation& situation) {
    return Judgement(path, database, situation).run();
}

} // namespace qrtln
