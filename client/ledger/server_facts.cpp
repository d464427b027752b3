#include "client/ledger/server_facts.h"

#include "client/base/error.h"
#include "client/base/ordered_work.h"
#include "client/base/text.h"
#include "client/sets/catalogue.h"
#include "client/sets/set_links.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

namespace qrtln {

namespace {

constexpr int unread_code = static_cast<int>(ExitCode::damage_found);

class StoreReading {
  public:
    StoreReading(Store& store, KnownDamage& damage) : m_store(store), m_damage(damage) {}
    StoreFacts run();

  private:
    // The sets of one server and data directory. Those that do not tell the server's own name are
    // of each that has one.
    struct Group {
        ServerFacts unnamed;
        std::map<std::string, ServerFacts> named;
    };

    void take(const Manifest& manifest);
    void add(ServerFacts& server, const Manifest& manifest);
    void add_database(ServerFacts& server, const Manifest& manifest, const ManifestItem& item,
                      std::int64_t from);
    void note_unread(const std::string& set, const std::string& problem);

    Store& m_store;
    KnownDamage& m_damage;
    std::map<std::pair<std::string, std::string>, Group> m_groups;
    SetLinks m_links;
    std::vector<LedgerFinding> m_findings;
};

StoreFacts StoreReading::run() {
    struct Read {
        std::optional<Manifest> manifest;
        std::string problem;
    };
    constexpr std::size_t most_manifests = 6; // under way: large ones have many items
    OrderedWork work(most_manifests);
    for (const std::string& set : m_store.set_names()) {
        auto read = std::make_shared<Read>();
        work.add(
            1,
            [this, set, read](std::size_t) {
                if (std::optional<std::string> bytes = m_store.read_manifest(set, read->problem))
                    read->manifest = parse_manifest(*bytes, set, read->problem);
            },
            [this, set, read] {
                if (read->manifest)
                    take(*read->manifest);
                else
                    note_unread(set, read->problem);
                read->manifest.reset();
            });
    }
    work.finish();
    for (const MissingSet& missing : m_links.missing(m_store))
        m_findings.push_back({unread_code, {}, describe(missing), missing_set_hint});
    StoreFacts facts;
    facts.findings = std::move(m_findings);
    for (auto& [key, group] : m_groups) {
        if (group.named.empty())
            facts.servers.push_back(std::move(group.unnamed));
        for (auto& [name, server] : group.named)
            facts.servers.push_back(std::move(server));
    }
    return facts;
}

void StoreReading::note_unread(const std::string& set, const std::string& problem) {
    if (m_store.absent_sets().all().contains(set)) // meanwhile
        return;
    m_findings.push_back(
        {unread_code,
         {},
         fmt::format("the manifest of the set {} {}", for_terminal(set), for_terminal(problem)),
         "bring the file back from a copy of the store, then `qrtln verify`; if "
         "it is gone for good: `qrtln forget " +
             for_terminal(set) + "`, then take a full backup"});
}

void StoreReading::take(const Manifest& manifest) {
    m_links.add(manifest);
    Group& group = m_groups[{manifest.server_name, manifest.data_directory}];
    group.unnamed.scope = {
        manifest.server_name, {}, manifest.data_directory, manifest.data_directory};
    if (!manifest.own_name.empty()) {
        auto [server, is_new] = group.named.try_emplace(manifest.own_name);
        if (is_new) {
            server->second = group.unnamed;
            server->second.scope.own_name = manifest.own_name;
        }
        add(server->second, manifest);
        return;
    }
    add(group.unnamed, manifest);
    for (auto& [name, server] : group.named)
        add(server, manifest);
}

void StoreReading::add(ServerFacts& server, const Manifest& manifest) {
    SetFacts set;
    const std::int64_t from = complete_at(manifest);
    std::string problem;
    set.summary = {manifest.set,
                   level_text(manifest),
                   manifest.started,
                   from,
                   status_text(manifest),
                   log_range_text(manifest),
                   load_proof(m_store, manifest.set, problem)};
    if (!problem.empty())
        m_findings.push_back(
            {unread_code, manifest.server_name,
             fmt::format("the proof of the set {} {}", manifest.set, for_terminal(problem)),
             "`qrtln prove` records another"});
    set.whole_system = manifest.whole_system;
    set.complete = manifest.complete;
    set.is_full = manifest.level == "full" || manifest.level == "copy";
    set.base = manifest.base;
    if (set.whole_system && set.complete && set.is_full)
        server.newest_whole = manifest.set;
    if (set.whole_system && set.complete && manifest.level == "full")
        server.whole_sets.push_back(server.newest_base = manifest.set);
    server.sets.push_back(std::move(set));
    for (const ManifestItem& item : manifest.items)
        if (item.kind == ItemKind::database)
            add_database(server, manifest, item, from);
    server.logs.add(manifest, [this](const ManifestItem& item) { return m_damage.has(item); });
    ChainLink link = chain_link(manifest);
    if (link.logs.empty())
        return;
    link.logs.clear();
    for (const ManifestItem& item : manifest.items)
        if (item.log && item.status == ItemStatus::stored && !m_damage.has(item))
            link.logs.push_back(*item.log);
    server.links.push_back(std::move(link));
}

void StoreReading::add_database(ServerFacts& server, const Manifest& manifest,
                                const ManifestItem& item, std::int64_t from) {
    DatabaseFacts& database = server.databases[item.path];
    database.last_listed = manifest.set;
    database.left_out = item.status == ItemStatus::left_out;
    database.failure = item.status == ItemStatus::stored ? "" : item.reason;
    if (item.status != ItemStatus::stored)
        return;
    database.copies.push_back(saved_copy(manifest.set, item));
    database.facts.push_back({from, {is_not_logged(item), !item.dbiid.empty()}, item.map});
}

} // namespace

StoreFacts read_store_facts(Store& store, KnownDamage& damage) {
    return StoreReading(store, damage).run();
}

} // namespace qrtln
