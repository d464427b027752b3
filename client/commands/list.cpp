// `qrtln list`: the sets of a store.

#include "client/catalogue.h"
#include "client/commands/commands.h"
#include "client/error.h"
#include "client/log_chain.h"
#include "client/output.h"
#include "client/proof.h"
#include "client/set_links.h"
#include "client/store/store.h"
#include "client/text.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace qrtln {

namespace {

// A full of the whole server is more than one of some databases.
std::string level_text(const Manifest& manifest) {
    if (!manifest.reason.empty())
        return manifest.level + " (" + manifest.reason + ")";
    return manifest.whole_system ? manifest.level : manifest.level + " (named)";
}

} // namespace

int run_list(const StoreOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    SetLinks links;
    bool damaged = false;
    Table table({"SET", "SERVER", "LEVEL", "BASE", "STARTED", "ENDED", "DURATION ", "DATABASES ",
                 "ITEMS ", "FAILED ", "BYTES ", "NEW ", "LOGS", "PROVEN", "STATUS"});
    nlohmann::json sets = nlohmann::json::array();
    std::optional<ClientError> denied; // the first that this user may not read
    std::string reason;
    auto permitted = [&](const std::function<void()>& read) {
        try {
            read();
            return true;
        } catch (const ClientError& failure) {
            if (failure.exit_code() != static_cast<int>(ExitCode::no_permission))
                throw;
            denied = denied.value_or(failure);
            reason = failure.what();
            return false;
        }
    };
    const std::vector<std::string> names = store->set_names();
    for (const std::string& name : names) {
        CatalogueEntry entry;
        std::string proof = "no permission";
        if (!permitted([&] { entry = load_set(*store, name); })) {
            table.add({for_terminal(name), "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-",
                       "-", "no permission to read the manifest"});
            sets.push_back({{"set", printable_utf8(name)},
                            {"status", "no permission"},
                            {"problem", printable_utf8(reason)}});
            continue;
        }
        (void)permitted([&] { proof = proof_text(*store, name); });
        if (!entry.manifest) {
            damaged = true;
            table.add({for_terminal(name), "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-",
                       "-", "damaged: the manifest " + for_terminal(entry.problem)});
            sets.push_back({{"set", printable_utf8(name)},
                            {"status", "damaged"},
                            {"problem", printable_utf8(entry.problem)}});
            continue;
        }
        const Manifest& manifest = *entry.manifest;
        ManifestTotals sum = totals(manifest);
        links.add(manifest);
        bool based =
            manifest.base.empty() || std::binary_search(names.begin(), names.end(), manifest.base);
        std::string status = status_text(manifest) + (based ? "" : ", base missing");
        table.add({name, for_terminal(manifest.server_name), level_text(manifest),
                   manifest.base.empty() ? "-" : manifest.base, utc_time(manifest.started),
                   utc_time(complete_at(manifest)),
                   human_duration(manifest.ended - manifest.started), std::to_string(sum.databases),
                   std::to_string(sum.stored_items), std::to_string(sum.failed_items),
                   human_bytes(sum.bytes), human_bytes(manifest.new_bytes),
                   log_range_text(manifest), proof, status});
        nlohmann::json gaps = nlohmann::json::array();
        for (const LogGap& gap : manifest.log_gaps)
            gaps.push_back(describe(gap));
        sets.push_back({{"set", name},
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
                        {"warnings", sum.warnings},
                        {"bytes", sum.bytes},
                        {"new_bytes", manifest.new_bytes},
                        {"host", manifest.host},
                        {"server", manifest.server_name},
                        {"data_directory", printable_utf8(manifest.data_directory)},
                        {"proven", proof},
                        {"status", status}});
    }
    std::vector<MissingSet> missing;
    (void)permitted([&] { missing = links.missing(*store); });
    nlohmann::json missing_sets = nlohmann::json::array();
    for (const MissingSet& set : missing) {
        missing_sets.push_back({{"set", printable_utf8(set.set)}, {"why", set.why}});
        print_error(describe(set), &set == &missing.back() ? missing_set_hint : "");
    }
    int code = damaged || !missing.empty() ? static_cast<int>(ExitCode::damage_found)
               : denied                    ? denied->exit_code()
                                           : static_cast<int>(ExitCode::complete);
    if (options.json)
        print_json(
            {{"command", "list"}, {"sets", sets}, {"missing", missing_sets}, {"exit_code", code}});
    else
        print_output(sets.empty() ? store->description() + " has no sets\n" : table.text());
    if (denied)
        print_error(denied->what(), denied->hint());
    return code;
}

} // namespace qrtln
