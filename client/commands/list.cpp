// `qrtln list`: the sets of a store.

#include "client/catalogue.h"
#include "client/commands/commands.h"
#include "client/log_chain.h"
#include "client/output.h"
#include "client/proof.h"
#include "client/store/store.h"
#include "client/text.h"

namespace qrtln {

int run_list(const StoreOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    Table table({"SET", "LEVEL", "BASE", "STARTED", "DURATION ", "DATABASES ", "ITEMS ", "FAILED ",
                 "BYTES ", "NEW ", "LOGS", "PROVEN", "STATUS"});
    nlohmann::json sets = nlohmann::json::array();
    for (const std::string& name : store->set_names()) {
        CatalogueEntry entry = load_set(*store, name);
        if (!entry.manifest) {
            table.add({for_terminal(name), "-", "-", "-", "-", "-", "-", "-", "-", "-", "-", "-",
                       "damaged: the manifest " + for_terminal(entry.problem)});
            sets.push_back({{"set", printable_utf8(name)},
                            {"status", "damaged"},
                            {"problem", printable_utf8(entry.problem)}});
            continue;
        }
        const Manifest& manifest = *entry.manifest;
        ManifestTotals sum = totals(manifest);
        table.add({name,
                   manifest.reason.empty() ? manifest.level
                                           : manifest.level + " (" + manifest.reason + ")",
                   manifest.base.empty() ? "-" : manifest.base, utc_time(manifest.started),
                   human_duration(manifest.ended - manifest.started), std::to_string(sum.databases),
                   std::to_string(sum.stored_items), std::to_string(sum.failed_items),
                   human_bytes(sum.bytes), human_bytes(manifest.new_bytes),
                   log_range_text(manifest), proof_text(*store, name), status_text(manifest)});
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
                        {"ended", utc_time(manifest.ended)},
                        {"databases", sum.databases},
                        {"items", sum.stored_items},
                        {"failed_items", sum.failed_items},
                        {"warnings", sum.warnings},
                        {"bytes", sum.bytes},
                        {"new_bytes", manifest.new_bytes},
                        {"host", manifest.host},
                        {"proven", proof_text(*store, name)},
                        {"status", status_text(manifest)}});
    }
    if (options.json)
        print_json({{"command", "list"}, {"sets", sets}});
    else
        print_output(sets.empty() ? store->description() + " has no sets\n" : table.text());
    return 0;
}

} // namespace qrtln
