#include "client/ledger/ledger.h"

#include "client/base/error.h"
#include "client/base/text.h"
#include "client/domino/notes_ini.h"
#include "client/ledger/findings.h"
#include "client/ledger/server_facts.h"
#include "client/ledger/server_judgement.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace qrtln {

namespace {

// The server of notes.ini, where no set is of it.
void add_server_of_ini(const LedgerRequest& request, StoreFacts& facts) {
    if (request.ini == nullptr)
        return;
    const ServerScope& scope = request.ini->sets;
    bool known = std::any_of(facts.servers.begin(), facts.servers.end(), [&](const auto& server) {
        return server.scope.name == request.ini->server_name &&
               server.scope.data_directory == request.ini->data_directory;
    });
    if (known)
        return;
    ServerFacts& server = facts.servers.emplace_back();
    server.scope = {request.ini->server_name, scope.own_name, request.ini->data_directory,
                    request.ini->data_directory};
    facts.findings.push_back(
        {0, request.ini->server_name,
         fmt::format("no set of {} has the data directory {}",
                     for_terminal(request.ini->server_name),
                     for_terminal(request.ini->data_directory)),
         "say --server with the name that its sets have: `qrtln list` shows them"});
}

} // namespace

std::optional<std::int64_t> DatabaseLedger::recoverable_from() const {
    return windows.empty() ? std::nullopt : std::optional(windows.front().from);
}

std::optional<std::int64_t> DatabaseLedger::recoverable_until() const {
    return windows.empty() ? std::nullopt : std::optional(windows.back().until);
}

std::optional<std::int64_t> DatabaseLedger::as_of() const {
    return windows.empty() ? std::nullopt
                           : std::optional(std::max(windows.back().until, unchanged_until));
}

std::size_t ServerLedger::count(LedgerState state) const {
    return static_cast<std::size_t>(
        std::count_if(databases.begin(), databases.end(),
                      [&](const DatabaseLedger& database) { return database.state == state; }));
}

std::size_t ServerLedger::current() const {
    return static_cast<std::size_t>(
        std::count_if(databases.begin(), databases.end(),
                      [](const DatabaseLedger& database) { return database.is_current(); }));
}

std::optional<std::int64_t> ServerLedger::as_of() const {
    std::optional<std::int64_t> oldest;
    for (const DatabaseLedger& database : databases)
        if (std::optional<std::int64_t> as_of = database.as_of(); as_of && database.is_current())
            oldest = std::min(oldest.value_or(*as_of), *as_of);
    return oldest;
}

int Ledger::exit_code() const {
    return findings.empty() ? 0 : findings.front().code;
}

std::string Ledger::verdict() const {
    std::size_t databases = 0;
    std::optional<std::int64_t> until;
    for (const ServerLedger& server : servers) {
        databases += server.current();
        if (std::optional<std::int64_t> own = server.as_of())
            until = std::min(until.value_or(*own), *own);
    }
    if (servers.empty() && findings.empty())
        return "nothing is recoverable: the store has no sets. Take a full backup: `qrtln backup "
               "--level full`";
    if (exit_code() == 0)
        return fmt::format("everything is recoverable: {} {}, each as of {} or later", databases,
                           databases == 1 ? "database" : "databases",
                           until ? utc_time(*until) : "-");
    std::size_t others = 0;
    for (const LedgerFinding& finding : findings)
        others += finding.code != 0 ? 1 : 0;
    const LedgerFinding& worst = findings.front();
    const std::string where = worst.store.empty() ? "" : for_terminal(worst.store) + ": ";
    std::string more;
    if (others > 1)
        more = fmt::format(" ({} more {})", others - 1, others == 2 ? "finding" : "findings");
    return fmt::format("not everything is fine: {}{}{}{}{}", where, worst.text,
                       worst.advice.empty() ? "" : ": ", worst.advice, more);
}

Ledger make_ledger(Store& store, const LedgerRequest& request) {
    KnownDamage damage(store);
    StoreFacts facts = read_store_facts(store, damage);
    Ledger ledger;
    ledger.made = request.now;
    ledger.stores = {store.address()};
    add_server_of_ini(request, facts);
    ledger.findings = std::move(facts.findings);
    for (ServerFacts& server : facts.servers) {
        if (!request.server.empty() && server.scope.name != request.server)
            continue;
        ServerJudgement judgement(store, damage, request, std::move(server));
        ledger.servers.push_back(judgement.run());
        for (auto findings :
             {judgement.take_findings(), findings_of(ledger.servers.back(), request)})
            for (LedgerFinding& finding : findings)
                ledger.findings.push_back(std::move(finding));
    }
    if (ledger.servers.empty() && !request.server.empty() && ledger.findings.empty())
        throw ClientError(ExitCode::no_such,
                          fmt::format("{} has no set of the server {}", store.description(),
                                      for_terminal(request.server)),
                          "`qrtln list` shows the sets and their servers");
    if (ledger.servers.empty() && ledger.findings.empty())
        ledger.findings.push_back({static_cast<int>(ExitCode::items_failed),
                                   {},
                                   "the store has no sets",
                                   "take a full backup: `qrtln backup --level full`"});
    sort_by_weight(ledger.findings);
    return ledger;
}

Ledger ledger_of_failure(const std::string& store, const ClientError& failure,
                         const LedgerRequest& request) {
    Ledger ledger;
    ledger.made = request.now;
    ledger.stores = {store};
    ledger.findings.push_back({failure.exit_code(), {}, failure.what(), failure.hint()});
    return ledger;
}

Ledger join_ledgers(std::vector<Ledger> ledgers) {
    Ledger joined;
    joined.made = ledgers.front().made;
    for (Ledger& ledger : ledgers) {
        const std::string& store = ledger.stores.front();
        joined.stores.push_back(store);
        for (ServerLedger& server : ledger.servers) {
            server.store = store;
            joined.servers.push_back(std::move(server));
        }
        for (LedgerFinding& finding : ledger.findings) {
            finding.store = store;
            joined.findings.push_back(std::move(finding));
        }
    }
    sort_by_weight(joined.findings);
    return joined;
}

} // namespace qrtln
