// `qrtln list`: the sets of a store.

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/commands/set_reading.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/manifest.h"
#include "client/sets/name_pattern.h"
#include "client/sets/proof_record.h"
#include "client/store/store.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <optional>

namespace qrtln {

namespace {

constexpr const char* list_help =
    R"(List the sets of the store, or those that the options choose. Sets that are damaged or missing
are told whatever is chosen.)";

struct ListOptions : StoreOptions {
    SetFilterOptions filter;
    std::string database;
};

constexpr std::array headings = {"SET",    "SERVER",    "LEVEL",      "BASE",   "STARTED",
                                 "ENDED",  "DURATION ", "DATABASES ", "ITEMS ", "FAILED ",
                                 "BYTES ", "NEW ",      "LOGS",       "PROVEN", "STATUS"};

class SetList {
  public:
    SetList(Store& store, const ListOptions& options)
        : m_store(store), m_options(options), m_reading(store), m_filter(options.filter) {
        if (!options.database.empty())
            m_database.emplace(options.database);
    }
    int print();

  private:
    void add_set(const std::string& name);
    void add_unread(const UnreadSet& unread);
    bool is_wanted(const Manifest& manifest);
    void add_manifest(const Manifest& manifest, const std::string& proof);
    int exit_code() const;

    Store& m_store;
    const ListOptions& m_options;
    SetReading m_reading;
    SetFilter m_filter;
    std::optional<NamePattern> m_database;
    bool m_database_met = false;
    Table m_table{{headings.begin(), headings.end()}};
    nlohmann::json m_sets = nlohmann::json::array();
};

void SetList::add_set(const std::string& name) {
    std::string proof = "no permission";
    std::optional<Manifest> manifest = m_reading.read(name);
    if (!manifest)
        return add_unread(m_reading.unread().back());
    if (!is_wanted(*manifest))
        return;
    (void)m_reading.permitted([&] { proof = proof_text(m_store, name); });
    add_manifest(*manifest, proof);
}

bool SetList::is_wanted(const Manifest& manifest) {
    if (!m_filter.takes(manifest))
        return false;
    if (!m_database)
        return true;
    bool has =
        std::any_of(manifest.items.begin(), manifest.items.end(), [&](const ManifestItem& item) {
            return item.kind == ItemKind::database && item.status == ItemStatus::stored &&
                   m_database->matches(item.path, manifest.data_directory);
        });
    m_database_met = m_database_met || has;
    return has;
}

void SetList::add_unread(const UnreadSet& unread) {
    std::vector<std::string> row(headings.size(), "-");
    row.front() = for_terminal(unread.set);
    row.back() = unread.status == "damaged"
                     ? "damaged: the manifest " + for_terminal(unread.problem)
                     : "no permission to read the manifest";
    m_table.add(std::move(row));
    m_sets.push_back({{"set", printable_utf8(unread.set)},
                      {"status", unread.status},
                      {"problem", printable_utf8(unread.problem)}});
}

void SetList::add_manifest(const Manifest& manifest, const std::string& proof) {
    ManifestTotals sum = totals(manifest);
    const std::vector<std::string>& names = m_reading.names();
    bool based =
        manifest.base.empty() || std::binary_search(names.begin(), names.end(), manifest.base);
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

// A name that nothing has is a mistake, but where it may be in what cannot be read.
int SetList::exit_code() const {
    int code = m_reading.exit_code();
    if (code != 0)
        return code;
    m_filter.require_server(m_store);
    if (m_database && !m_database_met)
        throw ClientError(ExitCode::no_such,
                          fmt::format("no set of {} that was looked at has the database '{}'",
                                      m_store.description(), for_terminal(m_options.database)),
                          "`qrtln find` looks for names in all sets");
    return code;
}

int SetList::print() {
    for (const std::string& name : m_reading.names())
        add_set(name);
    nlohmann::json missing = m_reading.report_missing();
    int code = exit_code();
    if (m_options.json)
        print_json(
            {{"command", "list"}, {"sets", m_sets}, {"missing", missing}, {"exit_code", code}});
    else if (m_sets.empty())
        print_output(m_store.description() +
                     (m_reading.names().empty() ? " has no sets\n" : " has no such sets\n"));
    else
        print_output(m_table.text());
    m_reading.report_denied();
    return code;
}

int run_list(const ListOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    return SetList(*store, options).print();
}

void add_list(CLI::App& command, CommandRuns& runs) {
    auto& list = runs.add(command, run_list);
    add_store_options(command, list);
    add_set_filter(command, list.filter, true);
    command
        .add_option("--database", list.database,
                    "Only sets that hold this database: a name or pattern as `qrtln find` takes it")
        ->type_name("NAME");
}

} // namespace

const Command list_command = {"list", list_help, add_list};

} // namespace qrtln
