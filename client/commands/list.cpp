// `qrtln list`: the sets of a store.

#include "client/catalogue.h"
#include "client/commands/commands.h"
#include "client/output.h"
#include "client/store/store.h"
#include "client/text.h"

namespace qrtln {

int run_list(const StoreOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    Table table({"SET", "LEVEL", "STARTED", "DURATION ", "DATABASES ", "ITEMS ", "FAILED ",
                 "BYTES ", "NEW ", "STATUS"});
    nlohmann::json sets = nlohmann::json::array();
    for (const std::string& name : store->set_names()) {
        CatalogueEntry entry = load_set(*store, name);
        if (!entry.manifest) {
            table.add({for_terminal(name), "-", "-", "-", "-", "-", "-", "-", "-",
                       "damaged: the manifest " + for_terminal(entry.problem)});
            sets.push_back({{"set", printable_utf8(name)},
                            {"status", "damaged"},
                            {"problem", printable_utf8(entry.problem)}});
            continue;
        }
        const Manifest& manifest = *entry.manifest;
        ManifestTotals sum = totals(manifest);
        table.add({name, manifest.level, utc_time(manifest.started),
                   human_duration(manifest.ended - manifest.started), std::to_string(sum.databases),
                   std::to_string(sum.stored_items), std::to_string(sum.failed_items),
                   human_bytes(sum.bytes), human_bytes(manifest.new_bytes), status_text(manifest)});
        sets.push_back({{"set", name},
                        {"level", manifest.level},
                        {"started", utc_time(manifest.started)},
                        {"ended", utc_time(manifest.ended)},
                        {"databases", sum.databases},
                        {"items", sum.stored_items},
                        {"failed_items", sum.failed_items},
                        {"warnings", sum.warnings},
                        {"bytes", sum.bytes},
                        {"new_bytes", manifest.new_bytes},
                        {"host", manifest.host},
                        {"status", status_text(manifest)}});
    }
    if (options.json)
        print_json({{"command", "list"}, {"sets", sets}});
    else
        print_output(sets.empty() ? store->description() + " has no sets\n" : table.text());
    return 0;
}

} // namespace qrtln
