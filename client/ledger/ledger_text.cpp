#include "client/ledger/ledger_text.h"

#include "client/base/output.h"
#include "client/base/text.h"
#include "client/store/canonical_json.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

namespace {

using nlohmann::json;

std::string moment_text(const std::optional<std::int64_t>& time) {
    return time ? utc_time(*time) : "-";
}

json moment_json(const std::optional<std::int64_t>& time) {
    return time ? json(utc_time(*time)) : json();
}

std::string server_title(const ServerLedger& server) {
    return fmt::format("{} ({}{}{}){}{}", for_terminal(server.name),
                       for_terminal(server.data_directory), server.own_name.empty() ? "" : ", ",
                       for_terminal(server.own_name), server.store.empty() ? "" : " in ",
                       for_terminal(server.store));
}

std::string server_text(const ServerLedger& server, std::int64_t now) {
    std::string text = fmt::format("\nserver {}: {} databases, {} sets, the newest {}\n",
                                   server_title(server), server.current(), server.sets.size(),
                                   server.sets.empty() ? "-" : server.sets.back().set);
    for (const ServerLedger::Gap& gap : server.log_gaps)
        if (!gap.is_open) // of others the findings tell
            text += fmt::format("earlier gap: {}\n", gap.text);
    if (server.databases.empty())
        return text;
    Table table(
        {"STATE", "DATABASE", "NEWEST SET", "DBIID", "FROM", "TO", "GAPS ", "PROOF", "AGE "});
    for (const DatabaseLedger& database : server.databases)
        table.add({state_text(database), for_terminal(database.name),
                   database.newest_set.empty() ? "-" : database.newest_set,
                   database.dbiid.empty() ? "-" : for_terminal(database.dbiid),
                   moment_text(database.recoverable_from()),
                   moment_text(database.recoverable_until()), std::to_string(database.gaps.size()),
                   proof_text(database.proof), age_text(database, now)});
    text += table.text();
    for (const DatabaseLedger& database : server.databases) {
        const bool is_told = database.why.empty() || database.newest_set.empty();
        if (!is_told && database.is_current() && database.state != LedgerState::recoverable)
            text +=
                fmt::format("{}: {}\n", for_terminal(database.name), for_terminal(database.why));
    }
    return text;
}

json database_json(const DatabaseLedger& database, std::int64_t now) {
    json windows = json::array();
    for (const Window& window : database.windows)
        windows.push_back({{"from", utc_time(window.from)},
                           {"to", utc_time(window.until)},
                           {"any_moment", window.any_moment}});
    json gaps = json::array();
    for (const CoverageGap& gap : database.gaps)
        gaps.push_back({{"from", utc_time(gap.from)},
                        {"to", utc_time(gap.until)},
                        {"open", gap.is_open},
                        {"why", printable_utf8(gap.why)}});
    json proof;
    if (database.proof)
        proof = {{"time", utc_time(database.proof->time)},
                 {"set", database.proof->set},
                 {"proven", database.proof->proven},
                 {"reason", printable_utf8(database.proof->reason)}};
    const std::optional<std::int64_t> as_of = database.as_of();
    json entry = {{"path", printable_utf8(database.path)},
                  {"database", printable_utf8(database.name)},
                  {"state", state_name(database.state)},
                  {"reason", printable_utf8(database.why)},
                  {"newest_set", database.newest_set},
                  {"dbiid", printable_utf8(database.dbiid)},
                  {"follows_logs", database.follows_logs},
                  {"recoverable_from", moment_json(database.recoverable_from())},
                  {"recoverable_to", moment_json(database.recoverable_until())},
                  {"as_of", moment_json(as_of)},
                  {"copies", database.copies.size()},
                  {"recoverable", std::move(windows)},
                  {"gaps", std::move(gaps)},
                  {"last_proof", std::move(proof)},
                  {"age_seconds", as_of ? json(std::max<std::int64_t>(now - *as_of, 0)) : json()}};
    return entry;
}

json server_json(const ServerLedger& server, std::int64_t now) {
    json databases = json::array();
    for (const DatabaseLedger& database : server.databases)
        databases.push_back(database_json(database, now));
    json sets = json::array();
    for (const SetSummary& set : server.sets)
        sets.push_back({{"set", set.set},
                        {"level", set.level},
                        {"started", utc_time(set.started)},
                        {"ended", utc_time(set.complete_at)},
                        {"logs", set.logs},
                        {"status", set.status}});
    json gaps = json::array();
    for (const ServerLedger::Gap& gap : server.log_gaps)
        gaps.push_back({{"text", gap.text}, {"open", gap.is_open}});
    return {{"store", printable_utf8(server.store)},
            {"server", server.name},
            {"own_name", printable_utf8(server.own_name)},
            {"data_directory", printable_utf8(server.data_directory)},
            {"as_of", moment_json(server.as_of())},
            {"sets", std::move(sets)},
            {"log_gaps", std::move(gaps)},
            {"databases", std::move(databases)}};
}

} // namespace

std::string long_duration(std::int64_t seconds) {
    constexpr std::int64_t hour = 3600;
    constexpr std::int64_t day = 24 * hour;
    if (seconds < day)
        return human_duration(std::max<std::int64_t>(seconds, 0));
    return fmt::format("{} d {:02} h", seconds / day, seconds % day / hour);
}

std::string age_text(const DatabaseLedger& database, std::int64_t now) {
    const std::optional<std::int64_t> as_of = database.as_of();
    return as_of ? long_duration(now - *as_of) : "-";
}

std::string proof_text(const std::optional<LastProof>& proof) {
    return proof ? (proof->proven ? "" : "failed ") + utc_time(proof->time) : "-";
}

std::string state_text(const DatabaseLedger& database) {
    if (database.state != LedgerState::recoverable || database.follows_logs)
        return state_name(database.state);
    return database.copies.size() == 1 ? "as saved"
                                       : fmt::format("as saved, {} times", database.copies.size());
}

std::string place_of(const LedgerFinding& finding) {
    std::string place;
    for (const std::string& part : {finding.store, finding.server})
        if (!part.empty())
            place += for_terminal(part) + ": ";
    return place;
}

std::string ledger_text(const Ledger& ledger) {
    std::string text = ledger.verdict() + "\n";
    for (const LedgerFinding& finding : ledger.findings) {
        text += fmt::format("\n{}{}{}\n", finding.code == 0 ? "note: " : "", place_of(finding),
                            finding.text);
        if (!finding.advice.empty())
            text += "  " + finding.advice + "\n";
    }
    for (const ServerLedger& server : ledger.servers)
        text += server_text(server, ledger.made);
    return text;
}

json ledger_json(const Ledger& ledger) {
    json findings = json::array();
    for (const LedgerFinding& finding : ledger.findings)
        findings.push_back({{"exit_code", finding.code},
                            {"store", printable_utf8(finding.store)},
                            {"server", finding.server},
                            {"text", printable_utf8(finding.text)},
                            {"advice", printable_utf8(finding.advice)}});
    json servers = json::array();
    for (const ServerLedger& server : ledger.servers)
        servers.push_back(server_json(server, ledger.made));
    const bool is_one = ledger.stores.size() == 1;
    return {{"made", utc_time(ledger.made)},
            {"store", is_one ? printable_utf8(ledger.stores.front()) : ""},
            {"stores", is_one ? json() : printable_list(ledger.stores)},
            {"verdict", printable_utf8(ledger.verdict())},
            {"findings", std::move(findings)},
            {"servers", std::move(servers)},
            {"exit_code", ledger.exit_code()}};
}

} // namespace qrtln
