// `qrtln list`: the sets of a store.

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/manifest.h"
#include "client/sets/proof_record.h"
#include "client/sets/set_links.h"
#include "client/store/store.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <functional>
#include <optional>

namespace qrtln {

namespace {

constexpr const char* list_help = "List the sets of the store.";

// A full of the whole server is more than one of some databases.
std::string level_text(const Manifest& manifest) {
    if (!manifest.reason.empty())
        return fmt::format("{} ({})", manifest.level, manifest.reason);
    return manifest.whole_system ? manifest.level : manifest.level + " (named)";
}

constexpr std::array headings = {"SET",    "SERVER",    "LEVEL",      "BASE",   "STARTED",
                                 "ENDED",  "DURATION ", "DATABASES ", "ITEMS ", "FAILED ",
                                 "BYTES ", "NEW ",      "LOGS",       "PROVEN", "STATUS"};

class SetList {
  public:
    explicit SetList(Store& store) : m_store(store), m_names(store.set_names()) {}
    int print(bool json);

  private:
    bool permitted(const std::function<void()>& read);
    void add_set(const std::string& name);
    void add_unread(const std::string& name, const std::string& status, const std::string& told,
                    const std::string& problem);
    void add_manifest(const Manifest& manifest, const std::string& proof);
    nlohmann::json report_missing();

    Store& m_store;
    const std::vector<std::string> m_names;
    Table m_table{{headings.begin(), headings.end()}};
    nlohmann::json m_sets = nlohmann::json::array();
    SetLinks m_links;
    bool m_damaged = false;              // a manifest is, or a set is missing
    std::optional<ClientError> m_denied; // the first that this user may not read
    std::string m_reason;                // of the last one
};

bool SetList::permitted(const std::function<void()>& read) {
    try {
        read();
        return true;
    } catch (const ClientError& failure) {
        if (failure.exit_code() != static_cast<int>(ExitCode::no_permission))
            throw;
        m_denied = m_denied.value_or(failure);
        m_reason = failure.what();
        return false;
    }
}

void SetList::add_set(const std::string& name) {
    CatalogueEntry entry;
    std::string proof = "no permission";
    if (!permitted([&] { entry = load_set(m_store, name); })) {
        add_unread(name, "no permission", "no permission to read the manifest", m_reason);
        return;
    }
    (void)permitted([&] { proof = proof_text(m_store, name); });
    if (entry.manifest) {
        add_manifest(*entry.manifest, proof);
        return;
    }
    m_damaged = true;
    add_unread(name, "damaged", "damaged: the manifest " + for_terminal(entry.problem),
               entry.problem);
}

void SetList::add_unread(const std::string& name, const std::string& status,
                         const std::string& told, const std::string& problem) {
    std::vector<std::string> row(headings.size(), "-");
    row.front() = for_terminal(name);
    row.back() = told;
    m_table.add(std::move(row));
    m_sets.push_back(
        {{"set", printable_utf8(name)}, {"status", status}, {"problem", printable_utf8(problem)}});
}

void SetList::add_manifest(const Manifest& manifest, const std::string& proof) {
    ManifestTotals sum = totals(manifest);
    m_links.add(manifest);
    bool based =
        manifest.base.empty() || std::binary_search(m_names.begin(), m_names.end(), manifest.base);
    std::string status = status_text(manifest) + (based ? "" : ", base missing");
    m_table.add({manifest.set, for_terminal(manifest.server_name), level_text(manifest),
                 manifest.base.empty() ? "-" : manifest.base, utc_time(manifest.started),
                 utc_time(complete_at(manifest)), human_duration(manifest.ended - manifest.started),
                 std::to_string(sum.databases), std::to_string(sum.stored_items),
                 std::to_string(sum.failed_items), human_bytes(sum.bytes),
                 human_bytes(manifest.new_bytes), log_range_text(manifest), proof, status});
    nlohmann::json gaps = nlohmann::json::array();
    for (const LogGap& gap : manifest.log_gaps)
        gaps.push_back(describe(gap));
    m_sets.push_back({{"set", manifest.set},
                      {"level", manifest.level},
                      {"reason", manifest.reason},
                      {"base", manifest.base},
                      {"previous", manifest.previous},
                      {"logs", log_range_json(manifest)},
                      {"log_gaps", gaps},
                      {"whole_system", manifest.whole_system},
                      {"started", utc_time(manifest.started)},
                      {"ended", utc_time(complete_at(manifest))},
                      {"databases", sum.databases},
                      {"items", sum.stored_items},
                      {"failed_items", sum.failed_items},
                      {"left_out_databases", sum.left_out_databases},
                      {"warnings", sum.warnings},
                      {"bytes", sum.bytes},
                      {"new_bytes", manifest.new_bytes},
                      {"host", manifest.host},
                      {"server", manifest.server_name},
                      {"data_directory", printable_utf8(manifest.data_directory)},
                      {"proven", proof},
                      {"status", status}});
}

nlohmann::json SetList::report_missing() {
    std::vector<MissingSet> missing;
    (void)permitted([&] { missing = m_links.missing(m_store); });
    nlohmann::json sets = nlohmann::json::array();
    for (const MissingSet& set : missing) {
        m_damaged = true;
        sets.push_back({{"set", printable_utf8(set.set)}, {"why", set.why}});
        print_error(describe(set), &set == &missing.back() ? missing_set_hint : "");
    }
    return sets;
}

int SetList::print(bool json) {
    for (const std::string& name : m_names)
        add_set(name);
    nlohmann::json missing = report_missing();
    int code = m_damaged  ? static_cast<int>(ExitCode::damage_found)
               : m_denied ? m_denied->exit_code()
                          : static_cast<int>(ExitCode::complete);
    if (json)
        print_json(
            {{"command", "list"}, {"sets", m_sets}, {"missing", missing}, {"exit_code", code}});
    else
        print_output(m_sets.empty() ? m_store.description() + " has no sets\n" : m_table.text());
    if (m_denied)
        print_error(m_denied->what(), m_denied->hint());
    return code;
}

int run_list(const StoreOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    return SetList(*store).print(options.json);
}

void add_list(CLI::App& command, CommandRuns& runs) {
    add_store_options(command, runs.add(command, run_list));
}

} // namespace

const Command list_command = {"list", list_help, add_list};

} // namespace qrtln
