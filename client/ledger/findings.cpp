#include "client/ledger/findings.h"

#include "client/base/error.h"
#include "client/base/text.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr int complete_code = static_cast<int>(ExitCode::complete);
constexpr int short_code = static_cast<int>(ExitCode::items_failed);
constexpr int damage_code = static_cast<int>(ExitCode::damage_found);
constexpr int gap_code = static_cast<int>(ExitCode::logs_missing);

constexpr const char* full_backup = "take a full backup: `qrtln backup --level full`";

struct StateMeaning {
    LedgerState state;
    const char* name;
    int code;
    const char* what; // of databases; empty: no finding
    const char* advice;
};

constexpr std::array meanings = {
    StateMeaning{LedgerState::recoverable, "recoverable", complete_code, "", ""},
    StateMeaning{LedgerState::deleted, "deleted", complete_code, "", ""},
    StateMeaning{LedgerState::left_out, "left out", complete_code,
                 "left out on purpose, and in no set", ""},
    StateMeaning{LedgerState::too_old, "too old", short_code, "older than --max-age",
                 "take a backup, and see why the last ones did not have them"},
    StateMeaning{LedgerState::restored, "restored", short_code,
                 "restored or recovered, and not saved since",
                 "take a backup: it saves them first, whatever its level"},
    StateMeaning{LedgerState::never_saved, "never saved", short_code, "never saved", full_backup},
    StateMeaning{LedgerState::damaged, "damaged", damage_code,
                 "damaged in the store, and not to be had as they were",
                 "take a full backup, then `qrtln verify`"},
    StateMeaning{LedgerState::gap, "gap", gap_code,
                 "cut off from the transaction logs behind their newest copies", full_backup},
};

const StateMeaning& meaning_of(LedgerState state) {
    return *std::find_if(meanings.begin(), meanings.end(),
                         [&](const StateMeaning& meaning) { return meaning.state == state; });
}

// "2 databases never saved: mail/a.nsf (…), mail/b.nsf".
LedgerFinding finding_of(const ServerLedger& server, const StateMeaning& meaning,
                         std::size_t count) {
    constexpr std::size_t shown = 3;
    std::string names;
    std::string why; // where all have one reason it is told once
    bool one_reason = true;
    std::size_t named = 0;
    for (const DatabaseLedger& database : server.databases) {
        if (database.state != meaning.state)
            continue;
        one_reason = one_reason && (why.empty() || why == database.why);
        why = database.why;
        if (named++ < shown)
            names += (names.empty() ? "" : ", ") + for_terminal(database.name);
    }
    if (count > shown)
        names += fmt::format(" and {} more", count - shown);
    if (one_reason && !why.empty())
        names += ": " + for_terminal(why);
    return {meaning.code, server.name,
            fmt::format("{} {} {}: {}", count, count == 1 ? "database" : "databases", meaning.what,
                        names),
            meaning.advice};
}

// Times of another clock, or of this one before it was set back, would look young for ever.
void add_future(const ServerLedger& server, std::int64_t now,
                std::vector<LedgerFinding>& findings) {
    constexpr std::int64_t tolerance = 300; // seconds, between the clocks of two machines
    auto later = std::find_if(server.sets.rbegin(), server.sets.rend(),
                              [&](const auto& set) { return set.complete_at > now + tolerance; });
    if (later != server.sets.rend())
        findings.push_back({short_code, server.name,
                            fmt::format("the set {} was complete at {}, later than this clock "
                                        "shows: no age can be told",
                                        later->set, utc_time(later->complete_at)),
                            "set the clock right, here or on the server"});
}

} // namespace

int code_of(LedgerState state) {
    return meaning_of(state).code;
}

const char* state_name(LedgerState state) {
    return meaning_of(state).name;
}

std::vector<LedgerFinding> findings_of(const ServerLedger& server, const LedgerRequest& request) {
    std::vector<LedgerFinding> findings;
    for (const StateMeaning& meaning : meanings)
        if (std::size_t count = server.count(meaning.state); count > 0 && *meaning.what != '\0')
            findings.push_back(finding_of(server, meaning, count));
    for (const ServerLedger::Gap& gap : server.log_gaps)
        if (gap.is_open && server.count(LedgerState::gap) == 0) // else databases tell it
            findings.push_back({gap_code, server.name, gap.text, full_backup});
    add_future(server, request.now, findings);
    if (!server.sets.empty() && server.current() == 0)
        findings.push_back(
            {short_code, server.name, "no set holds a database that is there now", full_backup});
    return findings;
}

void sort_by_weight(std::vector<LedgerFinding>& findings) {
    std::stable_sort(
        findings.begin(), findings.end(),
        [](const LedgerFinding& one, const LedgerFinding& other) { return one.code > other.code; });
}

} // namespace qrtln
