#include "client/commands/forget_sets.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/lock_wait.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/documents/lost_documents.h"
#include "client/recovery/journal.h"
#include "client/sets/catalogue.h"
#include "client/sets/proof_record.h"
#include "client/sets/server_runtime.h"
#include "client/sets/set_links.h"
#include "client/sets/store_use.h"
#include "client/store/canonical_json.h"
#include "client/store/lock_state.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace qrtln {

namespace {

// The sets of the store, and which of them stay.
class ForgetPlan {
  public:
    ForgetPlan(Store& store, const ForgetRequest& request) : m_store(store), m_request(request) {}

    void read_sets();
    // Chooses by name or by policy. Throws where a name must not go.
    void choose();
    // Those that go, the newest first, those that are missing last; and those that stay, with why.
    const std::vector<std::string>& going() const { return m_going; }
    const std::vector<std::pair<std::string, std::string>>& staying() const { return m_staying; }
    std::string server_of(const std::string& set) const;

  private:
    void require_no_recovery();
    void choose_named();
    void choose_by_policy();
    void take_from_readers(const std::string& set) const;
    void require_not_last(const std::set<std::string>& names) const;

    Store& m_store;
    const ForgetRequest& m_request;
    std::vector<RetentionSet> m_sets; // those that can be read, the oldest first
    std::vector<std::string> m_there;
    std::map<std::string, std::string> m_servers;
    std::map<std::string, std::string> m_needed; // by what is under way, with why
    SetLinks m_links;
    std::vector<std::string> m_going;
    std::vector<std::pair<std::string, std::string>> m_staying;
};

void ForgetPlan::read_sets() {
    m_there = m_store.set_names();
    KnownDamage damage(m_store);
    std::set<std::string> servers;
    for (const std::string& set : m_there) {
        throw_if_interrupted();
        CatalogueEntry entry = load_set(m_store, set);
        if (!entry.manifest)
            continue;
        std::string problem;
        std::optional<Proof> proof = load_proof(m_store, set, problem);
        m_links.add(*entry.manifest);
        m_servers[set] = entry.manifest->server_name;
        servers.insert(entry.manifest->server_name);
        m_sets.push_back(retention_set(*entry.manifest, proof && proof->failures.empty(), damage));
    }
    for (const std::string& server : servers) {
        use_runtime_of(m_store, server);
        require_no_recovery();
        for (const std::string& set : LostDocumentsFile(m_store).sets())
            m_needed.emplace(set, "has documents that a restore deleted and did not bring back");
    }
}

void ForgetPlan::require_no_recovery() {
    std::string file = m_store.runtime_directory() + "/recovery.json";
    if (RecoveryJournalFile(file).read())
        throw ClientError(ExitCode::failed, "a recovery is not finished: nothing was forgotten",
                          "finish it with `qrtln recover`, or give it up with `qrtln recover "
                          "--abandon`");
}

void ForgetPlan::choose() {
    if (m_request.sets.empty())
        choose_by_policy();
    else
        choose_named();
}

// The full names; of sets that are missing only these will do.
void ForgetPlan::choose_named() {
    std::set<std::string> missing;
    for (const MissingSet& set : m_links.missing(m_store))
        missing.insert(set.set);
    std::set<std::string> names;
    for (const std::string& name : m_request.sets)
        names.insert(missing.contains(name) ? name : resolve_set(m_store, name));
    for (const RetentionSet& set : m_sets)
        for (const std::string& needed : set.needs)
            if (!names.contains(set.set) && names.contains(needed) && !missing.contains(needed))
                throw ClientError(
                    ExitCode::failed,
                    fmt::format("the set {} builds on {}: nothing was forgotten", set.set, needed),
                    "name both, or keep both");
    for (const auto& [set, why] : m_needed)
        if (names.contains(set))
            throw ClientError(ExitCode::failed,
                              fmt::format("the set {} {}: nothing was forgotten", set, why),
                              "bring them back first: `qrtln documents deleted`");
    if (!m_request.even_last)
        require_not_last(names);
    for (const std::string& name : names)
        take_from_readers(name);
    m_going.assign(names.rbegin(), names.rend());
    for (const std::string& set : m_there)
        if (!names.contains(set))
            m_staying.emplace_back(set, "is not named");
}

void ForgetPlan::take_from_readers(const std::string& set) const {
    const auto refused = [&] {
        std::string who = "somebody";
        if (std::vector<UsedLock> readers = readers_of(m_store, {set}); !readers.empty())
            who = describe(readers[0].process.value_or(ProcessNote{}));
        return fmt::format("{} reads the set {} at the moment", who, set);
    };
    if (!wait_for_lock([&] { return m_store.take_set(set); }, refused))
        throw ClientError(ExitCode::locked, refused() + ": nothing was forgotten", locked_hint);
}

void ForgetPlan::require_not_last(const std::set<std::string>& names) const {
    Retention last(m_sets);
    last.keep_last_copies();
    for (const std::string& name : names)
        if (std::string why = last.reason(name); !why.empty())
            throw ClientError(ExitCode::failed,
                              fmt::format("the set {} {}: nothing was forgotten", name, why),
                              "keep it, or say --even-last");
}

void ForgetPlan::choose_by_policy() {
    if (std::vector<MissingSet> missing = m_links.missing(m_store); !missing.empty())
        throw ClientError(ExitCode::damage_found, describe(missing[0]) + ": nothing was forgotten",
                          missing_set_hint);
    Retention retention(m_sets);
    for (const RetentionSet& set : m_sets)
        if (!m_request.server.empty() && set.server != m_request.server)
            retention.keep(set.set, "is of another server");
    retention.keep_by(m_request.policy);
    retention.keep_current_chains();
    if (!m_request.even_last)
        retention.keep_last_copies();
    for (const auto& [set, why] : m_needed)
        retention.keep(set, why);
    for (const std::string& set : retention.forgotten())
        if (!m_store.take_set(set))
            retention.keep(set, "somebody reads it at the moment");
    m_going = retention.forgotten();
    for (const RetentionSet& set : m_sets)
        if (std::string why = retention.reason(set.set); !why.empty())
            m_staying.emplace_back(set.set, why);
}

std::string ForgetPlan::server_of(const std::string& set) const {
    auto found = m_servers.find(set);
    return found == m_servers.end() ? std::string() : found->second;
}

} // namespace

Forgetting forget_sets(Store& store, const ForgetRequest& request) {
    ForgetPlan plan(store, request);
    plan.read_sets();
    plan.choose();
    Forgetting done;
    done.dry_run = request.dry_run;
    done.forgotten = plan.going();
    done.kept = plan.staying();
    // Before anything goes: it throws where a set that stays cannot be read.
    StoreUse use = store_use(store, {done.forgotten.begin(), done.forgotten.end()});
    if (!request.dry_run)
        for (const std::string& set : done.forgotten)
            store.forget_set(set, plan.server_of(set));
    done.reclaimed = store.reclaim(use, request.dry_run, throw_if_interrupted);
    return done;
}

std::string forgetting_text(const Forgetting& done, bool with_kept) {
    std::string text;
    for (const auto& [set, why] : done.kept)
        if (with_kept)
            text += fmt::format("stays: {}: {}\n", for_terminal(set), why);
    for (const std::string& set : done.forgotten)
        text += fmt::format("{}: {}\n", done.dry_run ? "would go" : "forgotten", for_terminal(set));
    for (const std::string& problem : done.reclaimed.problems)
        text += fmt::format("warning: {}\n", problem);
    const Reclaimed& room = done.reclaimed;
    text += fmt::format("{} sets {}, {} {}: {} objects, {} packs, {} packs written anew\n",
                        done.forgotten.size(), done.dry_run ? "would go" : "forgotten",
                        human_bytes(room.bytes), done.dry_run ? "would be free" : "freed",
                        room.objects, room.packs, room.rewritten);
    return text;
}

nlohmann::json forgetting_json(const Forgetting& done) {
    nlohmann::json kept = nlohmann::json::array();
    for (const auto& [set, why] : done.kept)
        kept.push_back({{"set", printable_utf8(set)}, {"why", printable_utf8(why)}});
    return {{"command", "forget"},
            {"dry_run", done.dry_run},
            {"forgotten", printable_list(done.forgotten)},
            {"kept", kept},
            {"freed_bytes", done.reclaimed.bytes},
            {"removed_objects", done.reclaimed.objects},
            {"removed_packs", done.reclaimed.packs},
            {"rewritten_packs", done.reclaimed.rewritten},
            {"warnings", printable_list(done.reclaimed.problems)},
            {"exit_code", 0}};
}

ForgetRequest parse_policy(const std::string& options) {
    ForgetRequest request;
    CLI::App parser;
    add_policy_options(parser, request);
    parser.parse(options);
    if (!request.policy.any())
        throw CLI::ValidationError("it has none of the options --keep-… of `qrtln forget`");
    return request;
}

void add_policy_options(CLI::App& command, ForgetRequest& request) {
    RetentionPolicy& policy = request.policy;
    std::vector<CLI::Option*> options = {
        command.add_option("--keep-last", policy.last, "Keep the newest N sets"),
        command.add_option("--keep-daily", policy.daily,
                           "Keep the newest set of each of the last N days that have one"),
        command.add_option("--keep-weekly", policy.weekly, "Likewise of weeks"),
        command.add_option("--keep-monthly", policy.monthly, "Likewise of months"),
    };
    for (CLI::Option* option : options)
        option->type_name("N")->check(CLI::Range(1U, 1'000'000U));
    options.push_back(command
                          .add_option_function<std::string>(
                              "--keep-within",
                              [&policy](const std::string& text) {
                                  policy.within = parse_retention_time(text);
                                  if (!policy.within)
                                      throw CLI::ValidationError("--keep-within",
                                                                 "'" + text +
                                                                     "' is no time such as 30d, "
                                                                     "2w or 1y6m");
                              },
                              "Keep the sets of this time before the newest one: 30d, 2w, 1y6m")
                          ->type_name("TIME"));
    options.push_back(
        command.add_flag("--keep-proven", policy.proven, "Keep every set that was proven"));
    if (CLI::Option* sets = command.get_option_no_throw("SET"); sets != nullptr)
        for (CLI::Option* option : options)
            option->excludes(sets);
    command.add_flag("--even-last", request.even_last,
                     "Also a set that is the newest with some database may go");
}

} // namespace qrtln
