#include "client/sets/retention.h"

#include "client/base/text.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>

namespace qrtln {

namespace {

std::string day(const std::tm& local) {
    return fmt::format("{:%Y-%m-%d}", local);
}
std::string week(const std::tm& local) { // by ISO 8601
    return fmt::format("{:%G-%V}", local);
}
std::string month(const std::tm& local) {
    return fmt::format("{:%Y-%m}", local);
}

std::map<std::string, std::vector<const RetentionSet*>>
newest_first_by_server(const std::vector<RetentionSet>& sets) {
    std::map<std::string, std::vector<const RetentionSet*>> servers;
    for (auto set = sets.rbegin(); set != sets.rend(); ++set)
        servers[set->server].push_back(&*set);
    return servers;
}

} // namespace

std::optional<std::chrono::seconds> parse_retention_time(const std::string& text) {
    using namespace std::chrono;
    static const std::map<char, hours> units = {
        {'y', hours(24 * 365)}, {'m', hours(24 * 30)}, {'w', hours(24 * 7)},
        {'d', hours(24)},       {'h', hours(1)},
    };
    constexpr unsigned most = 100'000;
    seconds sum{0};
    const char* end = text.data() + text.size();
    for (const char* at = text.data(); at != end; ++at) {
        unsigned count = 0;
        auto [behind, error] = std::from_chars(at, end, count);
        if (error != std::errc() || behind == end || count > most || !units.contains(*behind))
            return std::nullopt;
        sum += count * units.at(*behind);
        at = behind;
    }
    return text.empty() ? std::nullopt : std::optional(sum);
}

RetentionSet retention_set(const Manifest& manifest, bool proven, KnownDamage& damage) {
    RetentionSet set;
    set.set = manifest.set;
    set.server = manifest.server_name;
    set.started = manifest.started;
    set.level = manifest.level;
    set.is_base = manifest.level == "full" && manifest.whole_system && manifest.complete &&
                  manifest.close_error.empty();
    set.proven = proven;
    for (const std::string& needed : {manifest.base, manifest.previous})
        if (!needed.empty())
            set.needs.push_back(needed);
    for (const ManifestItem& item : manifest.items)
        if (item.kind == ItemKind::database && item.status == ItemStatus::stored &&
            !damage.has(item))
            set.databases.push_back(item.path);
    return set;
}

Retention::Retention(std::vector<RetentionSet> sets) : m_sets(std::move(sets)) {}

void Retention::keep(const std::string& set, const std::string& reason) {
    auto found = std::find_if(m_sets.begin(), m_sets.end(),
                              [&](const RetentionSet& one) { return one.set == set; });
    if (found == m_sets.end() || !m_kept.emplace(set, reason).second)
        return;
    for (const std::string& needed : found->needs)
        keep(needed, fmt::format("{} builds on it", set));
}

void Retention::keep_periods(const std::vector<const RetentionSet*>& newest_first, unsigned count,
                             std::string (*period)(const std::tm&), const char* name) {
    std::string last;
    for (const RetentionSet* set : newest_first) {
        std::time_t started = set->started;
        std::tm local{};
        if (count == 0 || ::localtime_r(&started, &local) == nullptr)
            return;
        std::string now = period(local);
        if (now == last)
            continue;
        last = now;
        --count;
        keep(set->set, name);
    }
}

void Retention::keep_by(const RetentionPolicy& policy) {
    for (const auto& [server, sets] : newest_first_by_server(m_sets)) {
        for (std::size_t i = 0; i < sets.size() && i < policy.last; ++i)
            keep(sets[i]->set, "last");
        keep_periods(sets, policy.daily, day, "daily");
        keep_periods(sets, policy.weekly, week, "weekly");
        keep_periods(sets, policy.monthly, month, "monthly");
        for (const RetentionSet* set : sets) {
            if (policy.within && set->started >= sets[0]->started - policy.within->count())
                keep(set->set, "within");
            if (policy.proven && set->proven)
                keep(set->set, "proven");
        }
    }
}

void Retention::keep_current_chains() {
    for (const auto& [server, sets] : newest_first_by_server(m_sets)) {
        auto base = std::find_if(sets.begin(), sets.end(),
                                 [](const RetentionSet* set) { return set->is_base; });
        if (base == sets.end())
            continue;
        keep((*base)->set, "the base of the next diff or incr");
        for (auto set = sets.begin(); set != base; ++set)
            if ((*set)->level != "copy")
                keep((*set)->set, "came after the newest base");
    }
}

void Retention::keep_last_copies() {
    for (const auto& [server, sets] : newest_first_by_server(m_sets)) {
        std::set<std::string> met;
        for (const RetentionSet* set : sets)
            for (const std::string& database : set->databases)
                if (met.insert(database).second)
                    keep(set->set, "has the last copy of " + for_terminal(database));
    }
}

std::string Retention::reason(const std::string& set) const {
    auto found = m_kept.find(set);
    return found == m_kept.end() ? std::string() : found->second;
}

std::vector<std::string> Retention::forgotten() const {
    std::vector<std::string> sets;
    for (auto set = m_sets.rbegin(); set != m_sets.rend(); ++set)
        if (!m_kept.contains(set->set))
            sets.push_back(set->set);
    return sets;
}

} // namespace qrtln
