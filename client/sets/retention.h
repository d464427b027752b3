// Which sets stay in a store: by a policy, and because something that stays needs them.
#pragma once

#include "client/sets/known_damage.h"
#include "client/sets/manifest.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qrtln {

// For each server by itself. A count of 0 asks for nothing.
struct RetentionPolicy {
    unsigned last = 0;
    unsigned daily = 0; // the newest set of so many days that have one, by this machine's time
    unsigned weekly = 0;
    unsigned monthly = 0;
    std::optional<std::chrono::seconds> within; // before the newest set's start
    bool proven = false;                        // every set that was proven
    bool any() const { return last + daily + weekly + monthly > 0 || within || proven; }
};

// "30d", "2y6m", "12h": years, months of 30 days, weeks, days and hours. Nothing for anything else.
std::optional<std::chrono::seconds> parse_retention_time(const std::string& text);

// What counts of a set.
struct RetentionSet {
    std::string set;
    std::string server;
    std::int64_t started = 0;
    std::string level;
    bool is_base = false; // a complete full set of the whole server, that the server closed
    bool proven = false;
    std::vector<std::string> needs;     // the sets that it builds on
    std::vector<std::string> databases; // that it has stored, and are not known to be damaged
};
RetentionSet retention_set(const Manifest& manifest, bool proven, KnownDamage& damage);

class Retention {
  public:
    // `sets`, the oldest first.
    explicit Retention(std::vector<RetentionSet> sets);

    // Notes that a set stays, and with it what it needs. The first reason counts.
    void keep(const std::string& set, const std::string& reason);
    // What the policy keeps; of the current chain of each server everything; and the newest set of
    // each database. The last two not with `even_last`, where a policy says so.
    void keep_by(const RetentionPolicy& policy);
    void keep_current_chains();
    void keep_last_copies();

    // Why a set stays; empty: it does not.
    std::string reason(const std::string& set) const;
    // Those that go, the newest first: none of them is missed by one that is still there.
    std::vector<std::string> forgotten() const;

  private:
    void keep_periods(const std::vector<const RetentionSet*>& newest_first, unsigned count,
                      std::string (*period)(const std::tm&), const char* name);

    std::vector<RetentionSet> m_sets;
    std::map<std::string, std::string> m_kept;
};

} // namespace qrtln
