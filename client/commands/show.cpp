// `qrtln show SET`: the items of one set.

#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/commands.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

namespace qrtln {

int run_show(const StoreOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    Manifest manifest = require_set(*store, options.set);
    if (options.json) {
        // The manifest is the document: one form for scripts.
        print_output(json_for_terminal(serialize(manifest)));
        return 0;
    }
    std::string text =
        "set " + manifest.set + ": " + manifest.level + ", " + status_text(manifest) +
        "\nstarted " + utc_time(manifest.started) + ", ended " + utc_time(complete_at(manifest)) +
        "\nserver " + server_text(manifest) + " on " + for_terminal(manifest.host) +
        ", notes.ini " + for_terminal(manifest.notes_ini) +
        (manifest.id_file.empty() ? "" : ", ID file " + for_terminal(manifest.id_file)) +
        "\nmodule " + for_terminal(manifest.module_client) + " " +
        for_terminal(manifest.module_version) + "\n";
    if (manifest.reason == "owed")
        text += "saves what an earlier run prepared and did not store\n";
    if (!manifest.base.empty())
        text += "builds on " + manifest.base +
                (manifest.previous.empty() ? "" : ", its logs continue " + manifest.previous) +
                "\n";
    if (std::string logs = log_range_text(manifest); logs != "-")
        text += "transaction logs " + logs + "\n";
    if (!manifest.predecessor.empty())
        text += "came after " + manifest.predecessor + "\n";
    for (const LogGap& gap : manifest.log_gaps)
        text += describe(gap) + "\n";
    if (manifest.left_out.any())
        text += left_out_text(manifest.left_out) + "\n";
    text += left_out_databases_text(manifest);
    if (!manifest.close_error.empty())
        text += "the server did not close the backup: " + for_terminal(manifest.close_error) + "\n";
    Table table({"KIND", "BYTES ", "MODIFIED", "OWNER", "PATH"});
    for (const ManifestItem& item : manifest.items) {
        table.add({item.status == ItemStatus::stored   ? item_kind_name(item.kind)
                   : item.status == ItemStatus::failed ? "FAILED"
                                                       : "LEFT OUT",
                   item.object.empty() ? "-" : std::to_string(item.size),
                   item.has_metadata ? utc_time(item.mtime_ns / 1'000'000'000) : "-",
                   item.owner.empty() ? std::to_string(item.uid) : for_terminal(item.owner),
                   for_terminal(item.path)});
    }
    text += "\n" + table.text();
    std::string notes;
    for (const ManifestItem& item : manifest.items) {
        if (item.log)
            notes += "log " + std::to_string(item.log->number) +
                     (item.log->active ? " (active)" : "") + ": " + for_terminal(item.path) + "\n";
        if (!item.target.empty())
            notes += "link: " + for_terminal(item.path) + " -> " + for_terminal(item.target) + "\n";
        if (item.status == ItemStatus::failed)
            notes += "failed: " + for_terminal(item.path) + ": " + for_terminal(item.reason) + "\n";
        for (const std::string& warning : item.warnings)
            notes += "warning: " + for_terminal(item.path) + ": " + for_terminal(warning) + "\n";
    }
    print_output(text + (notes.empty() ? "" : "\n" + notes));
    return 0;
}

} // namespace qrtln
