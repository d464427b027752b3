#include "client/ledger/server_judgement.h"

#include "client/backup/arguments.h"
#include "client/backup/away_folder.h"
#include "client/base/error.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/notes_ini.h"
#include "client/ledger/coverage.h"
#include "client/sets/server_runtime.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

bool LiveFiles::has(const std::string& path) const {
    return databases.contains(path) || exists(path);
}

ServerJudgement::ServerJudgement(Store& store, KnownDamage& damage, const LedgerRequest& request,
                                 ServerFacts facts)
    : m_damage(damage), m_request(request), m_facts(std::move(facts)),
      m_logs(std::move(m_facts.logs).finish(), m_facts.links) {
    read_owed(store);
    if (request.ini != nullptr && request.ini->data_directory == m_facts.scope.data_directory &&
        request.ini->server_name == m_facts.scope.name)
        look_at_server();
}

void ServerJudgement::read_owed(Store& store) {
    try {
        use_runtime_of(store, m_facts.scope.name);
        m_owed = OwedDatabases::read(owed_file_of(store));
    } catch (const ClientError& failure) {
        if (failure.exit_code() == static_cast<int>(ExitCode::no_permission))
            throw;
        m_findings.push_back({static_cast<int>(ExitCode::damage_found), m_facts.scope.name,
                              failure.what(), failure.hint()});
    }
}

// What cannot be looked at is not known to be saved.
void ServerJudgement::look_at_server() {
    m_server_logs = m_request.ini->logging;
    const SelectionScan scan = scan_selection(m_facts.scope.data_directory, {});
    m_live =
        LiveFiles{{scan.databases.begin(), scan.databases.end()}, m_facts.scope.data_directory};
    for (const std::string& path : scan.databases)
        m_facts.databases.try_emplace(path);
    for (const auto& [path, reason] : scan.unreachable)
        m_findings.push_back(
            {0, m_facts.scope.name, fmt::format("{}: {}", for_terminal(path), for_terminal(reason)),
             "what is there may be in no set: see what `qrtln backup` says of it"});
}

std::int64_t ServerJudgement::complete_at(const std::string& set) const {
    auto found = std::find_if(m_facts.sets.begin(), m_facts.sets.end(),
                              [&](const SetFacts& one) { return one.summary.set == set; });
    return found == m_facts.sets.end() ? 0 : found->summary.complete_at;
}

// A differential set that does not have a database found that it had not changed since its base.
std::int64_t ServerJudgement::unchanged_until(const DatabaseFacts& facts) const {
    std::int64_t until = 0;
    for (const SetFacts& set : m_facts.sets)
        if (set.whole_system && set.complete && set.summary.level == "diff" &&
            facts.last_listed != set.summary.set && facts.copies.back().set < set.summary.set &&
            facts.copies.back().set >= set.base)
            until = std::max(until, set.summary.started);
    return until;
}

// A proof of a set of the whole server is one of all databases that it and those before it have.
std::optional<LastProof> ServerJudgement::last_proof(const std::string& path,
                                                     const DatabaseFacts& facts) const {
    std::optional<LastProof> last;
    for (const SetFacts& set : m_facts.sets) {
        const std::optional<Proof>& proof = set.summary.proof;
        if (!proof || (last && last->time > proof->time))
            continue;
        const bool has =
            std::any_of(facts.copies.begin(), facts.copies.end(), [&](const SavedCopy& copy) {
                return copy.set == set.summary.set ||
                       (set.whole_system && !set.is_full && copy.set < set.summary.set);
            });
        auto failure = std::find_if(proof->failures.begin(), proof->failures.end(),
                                    [&](const ProofFailure& one) { return one.path == path; });
        // Without a moment the logs were missing, and nothing was tried.
        const bool nothing_tried = proof->recovered_to == 0 && !proof->failures.empty();
        if (failure != proof->failures.end())
            last = LastProof{proof->time, proof->set, false, failure->reason};
        else if (has && nothing_tried)
            last = LastProof{proof->time, proof->set, false, proof->failures.front().reason};
        else if (has)
            last = LastProof{proof->time, proof->set, true, {}};
    }
    return last;
}

// Where nobody looked, the newest set of everything tells what there was.
ServerJudgement::Whereabouts ServerJudgement::look_for(const std::string& path,
                                                       const DatabaseFacts& facts) const {
    if (!m_live && (facts.last_listed.empty() || facts.last_listed >= m_facts.newest_whole))
        return {};
    if (!m_live)
        return {true, fmt::format("the set {} of the whole server does not have it",
                                  m_facts.newest_whole)};
    if (m_live->has(path))
        return {};
    if (is_below(path, m_live->data_directory))
        if (std::optional<AwayFolder> away = away_folder(path, m_live->data_directory))
            return {false, fmt::format("its folder {} is away: {}", away->path, away->reason)};
    return {true, "it is not on the server any more"};
}

void ServerJudgement::judge_copies(const DatabaseFacts& facts, DatabaseLedger& database) {
    const std::string& data_directory = m_facts.scope.data_directory;
    const bool restored = m_owed && m_owed->is_restored(data_directory, database.path);
    Coverage coverage =
        cover(database.path, facts, {m_logs, m_damage, m_server_logs, restored, m_request.now});
    database.newest_set = facts.copies.back().set;
    database.dbiid = facts.copies.back().dbiid;
    database.windows = std::move(coverage.windows);
    database.gaps = std::move(coverage.gaps);
    database.follows_logs = coverage.end == CoverageEnd::stored_logs;
    database.unchanged_until = unchanged_until(facts);
    for (const CopyFacts& copy : facts.facts)
        database.copies.push_back(copy.from);
    switch (coverage.end) {
    case CoverageEnd::stored_logs:
    case CoverageEnd::as_saved:
        break;
    case CoverageEnd::restored:
        database.state = LedgerState::restored;
        break;
    case CoverageEnd::damaged:
        database.state = LedgerState::damaged;
        break;
    case CoverageEnd::log_gap:
        database.state = LedgerState::gap;
        break;
    }
    if (coverage.end != CoverageEnd::stored_logs)
        database.why = coverage.why;
    auto add = [&](const std::string& note) {
        database.why += (database.why.empty() ? "" : "; ") + note;
    };
    for (const std::string& note : coverage.notes)
        add(note);
    if (!facts.failure.empty())
        add(fmt::format("not saved in the set {}: {}", facts.last_listed, facts.failure));
    else if (!restored && m_owed && m_owed->has(data_directory, database.path))
        add("a run prepared it and did not store it: the next backup saves it first");
}

void ServerJudgement::settle_age(DatabaseLedger& database) const {
    const std::optional<std::int64_t> as_of = database.as_of();
    if (database.state != LedgerState::recoverable || !m_request.max_age || !as_of ||
        m_request.now - *as_of <= m_request.max_age->count())
        return;
    database.state = LedgerState::too_old;
    database.why = fmt::format("the store has it as of {}{}{}", utc_time(*as_of),
                               database.why.empty() ? "" : "; ", database.why);
}

DatabaseLedger ServerJudgement::judge(const std::string& path, const DatabaseFacts& facts) {
    DatabaseLedger database;
    database.path = path;
    const std::string& data_directory = m_facts.scope.data_directory;
    database.name = is_below(path, data_directory) ? path_below(path, data_directory) : path;
    const Whereabouts now = look_for(path, facts);
    if (!facts.copies.empty()) {
        judge_copies(facts, database);
        settle_age(database);
        database.proof = last_proof(path, facts);
    } else {
        database.state = facts.left_out ? LedgerState::left_out : LedgerState::never_saved;
        database.why = facts.failure;
    }
    if (now.gone) {
        database.state = LedgerState::deleted;
        database.why = now.why;
    } else if (!now.why.empty()) {
        database.why += (database.why.empty() ? "" : "; ") + now.why;
    }
    return database;
}

// Gaps behind which a full set of the whole server begins a new chain are history.
void ServerJudgement::add_log_gaps(ServerLedger& server) {
    std::vector<ChainLink> newest;
    for (const ChainLink& link : m_facts.links)
        if (link.set >= m_facts.newest_base)
            newest.push_back(link);
    if (!m_facts.newest_base.empty() && (newest.empty() || newest[0].set != m_facts.newest_base))
        newest.insert(newest.begin(), ChainLink{m_facts.newest_base, {}});
    auto entry = [&](const LogGap& gap, bool is_open) {
        return ServerLedger::Gap{describe(gap), complete_at(gap.after), complete_at(gap.before),
                                 is_open};
    };
    std::set<std::string> open;
    for (const LogGap& gap : find_log_gaps(newest)) {
        server.log_gaps.push_back(entry(gap, true));
        open.insert(describe(gap));
    }
    for (const LogGap& gap : m_logs.gaps())
        if (!open.contains(describe(gap)))
            server.log_gaps.push_back(entry(gap, false));
    std::stable_sort(server.log_gaps.begin(), server.log_gaps.end(),
                     [](const auto& one, const auto& other) { return one.after < other.after; });
}

ServerLedger ServerJudgement::run() {
    ServerLedger server;
    server.name = m_facts.scope.name;
    server.own_name = m_facts.scope.own_name;
    server.data_directory = m_facts.scope.data_directory;
    if (m_owed) // of one that is in no set, and that nobody looked for
        for (const std::string& path : m_owed->of(server.data_directory))
            if (!m_live || m_live->has(path))
                m_facts.databases.try_emplace(path);
    for (const auto& [path, facts] : m_facts.databases) {
        DatabaseLedger database = judge(path, facts);
        if (!facts.copies.empty() || database.is_current() || facts.left_out)
            server.databases.push_back(std::move(database));
    }
    std::stable_sort(server.databases.begin(), server.databases.end(),
                     [](const auto& one, const auto& other) { return one.state > other.state; });
    add_log_gaps(server);
    for (SetFacts& set : m_facts.sets) {
        if (set.summary.proof)
            server.last_proof = std::max(server.last_proof.value_or(0), set.summary.proof->time);
        server.sets.push_back(std::move(set.summary));
    }
    return server;
}

} // namespace qrtln
