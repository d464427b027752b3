#include "client/sets/log_chain.h"

#include "client/sets/catalogue.h"
#include "client/sets/log_gaps.h"
#include "client/sets/log_positions.h"
#include "client/sets/server_scope.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <map>
#include <optional>
#include <set>

namespace qrtln {

namespace {

// What the sets have of one log number.
struct Coverage {
    std::string first_set;
    std::string last_set;
    bool whole = false; // some copy was taken after the log was full
};

using Segment = std::map<std::int64_t, Coverage>; // by position, of one archive

void add_gaps(const Segment& segment, std::vector<LogGap>& gaps) {
    if (segment.empty())
        return;
    LogCopies copies;
    for (const auto& [position, coverage] : segment)
        copies[position] = coverage.whole ? LogCopy::whole : LogCopy::partial;
    for (const auto& [first, last] :
         find_gaps(copies, segment.begin()->first, segment.rbegin()->first)) {
        auto next = segment.upper_bound(first); // there is one: a gap ends before a log
        auto before = std::prev(next);
        gaps.push_back({before->second.last_set,
                        next->second.first_set,
                        LogPositions::number(first),
                        LogPositions::number(last),
                        {}});
    }
}

std::string set_or_sets(const LogGap& gap) {
    return gap.after == gap.before
               ? "in the set " + gap.after
               : fmt::format("between the sets {} and {}", gap.after, gap.before);
}

struct LogRange {
    std::uint32_t first;
    std::uint32_t last;
    std::optional<std::uint32_t> active;
};

std::optional<LogRange> log_range(const Manifest& manifest) {
    std::optional<std::uint32_t> active;
    std::set<std::int64_t> positions;
    LogPositions position;
    for (const LogIdentity& log : stored_logs(manifest)) {
        positions.insert(position.of(log.number));
        if (log.active)
            active = log.number;
    }
    if (positions.empty())
        return std::nullopt;
    return LogRange{LogPositions::number(*positions.begin()),
                    LogPositions::number(*positions.rbegin()), active};
}

// With the whole identities where both are known.
std::string new_log_text(const LogIdentity& before, const LogIdentity& after) {
    bool whole = !before.whole_id.empty() && !after.whole_id.empty();
    return fmt::format("the server began a new transaction log (archive identity {} became {})",
                       whole ? before.whole_id : before.archive_id,
                       whole ? after.whole_id : after.archive_id);
}

} // namespace

void ExtentSizes::add(const LogIdentity& log, std::uint64_t size) {
    auto known = std::find_if(m_sizes.begin(), m_sizes.end(),
                              [&](const auto& entry) { return same_archive(entry.first, log); });
    if (known == m_sizes.end())
        m_sizes.emplace_back(log, size);
    else
        known->second = std::max(known->second, size);
}

void ExtentSizes::add(const std::vector<ManifestItem>& items) {
    for (const ManifestItem& item : items)
        if (item.log && !item.log->active && item.status == ItemStatus::stored)
            add(*item.log, item.size);
}

void ExtentSizes::add(const ExtentSizes& others) {
    for (const auto& [log, size] : others.m_sizes)
        add(log, size);
}

std::uint64_t ExtentSizes::of(const LogIdentity& log) const {
    std::uint64_t largest = 0;
    for (const auto& [known, size] : m_sizes)
        if (same_archive(known, log))
            largest = std::max(largest, size);
    return largest;
}

std::vector<LogGap> find_log_gaps(const std::vector<ChainLink>& chain) {
    std::vector<LogGap> gaps;
    Segment segment;
    LogPositions position;
    LogIdentity archive;
    std::string previous_set;
    for (const ChainLink& link : chain) {
        if (previous_set.empty() && !link.logs.empty() && &link != &chain.front())
            gaps.push_back({chain.front().set, link.set, 0, 0,
                            "the set that the chain begins with holds no transaction logs"});
        for (const LogIdentity& log : link.logs) {
            if (!previous_set.empty() && !same_archive(log, archive)) {
                add_gaps(segment, gaps);
                segment.clear();
                position = {};
                gaps.push_back({previous_set, link.set, 0, 0, new_log_text(archive, log)});
            }
            archive = log;
            previous_set = link.set;
            Coverage& coverage = segment[position.of(log.number)];
            if (coverage.first_set.empty())
                coverage.first_set = link.set;
            coverage.last_set = link.set;
            coverage.whole = coverage.whole || !log.active;
        }
    }
    add_gaps(segment, gaps);
    // A log that filled up while the newest set was made may be in it as an active one, with the
    // next behind it: the server still has it, and it comes again with the next set.
    if (!chain.empty())
        for (const LogIdentity& active : chain.back().logs)
            if (active.active)
                std::erase_if(gaps, [&](const LogGap& gap) {
                    return gap.reason.empty() && gap.after == chain.back().set &&
                           !LogPositions::precedes(gap.first, active.number);
                });
    return gaps;
}

std::string describe(const LogGap& gap) {
    if (!gap.reason.empty())
        return gap.reason + ", " + set_or_sets(gap);
    return fmt::format("{} {}", missing_logs_text(gap.first, gap.last), set_or_sets(gap));
}

std::vector<ChainLink> load_log_chain(Store& store, const std::string& base,
                                      const ServerScope& scope) {
    std::vector<ChainLink> chain;
    for (const std::string& set : store.set_names()) {
        if (set < base)
            continue;
        CatalogueEntry entry = load_set(store, set, scope);
        if (!entry.manifest)
            continue;
        ChainLink link = chain_link(*entry.manifest);
        if (set == base || !link.logs.empty())
            chain.push_back(std::move(link));
    }
    return chain;
}

ChainLink chain_link(const Manifest& manifest) {
    ChainLink link{manifest.set, stored_logs(manifest)};
    link.extent_sizes.add(manifest.items);
    return link;
}

std::vector<LogIdentity> stored_logs(const Manifest& manifest) {
    std::vector<LogIdentity> logs;
    for (const ManifestItem& item : manifest.items)
        if (item.log && item.status == ItemStatus::stored)
            logs.push_back(*item.log);
    return logs;
}

std::string log_range_text(const Manifest& manifest) {
    std::optional<LogRange> range = log_range(manifest);
    if (!range)
        return "-";
    std::string text = std::to_string(range->first);
    if (range->last != range->first)
        text += "-" + std::to_string(range->last);
    return range->active ? fmt::format("{}, {} active", text, *range->active) : text;
}

nlohmann::json log_range_json(const Manifest& manifest) {
    std::optional<LogRange> range = log_range(manifest);
    if (!range)
        return nullptr;
    nlohmann::json out = {{"first", range->first}, {"last", range->last}, {"active", nullptr}};
    if (range->active)
        out["active"] = *range->active;
    return out;
}

} // namespace qrtln
