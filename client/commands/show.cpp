// `qrtln show SET`: the items of one set.

#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/manifest.h"
#include "client/sets/server_scope.h"
#include "client/store/store.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* show_help = "Show the items of one set.";

struct ShowOptions : StoreOptions {
    std::string set;
};

std::string head_text(const Manifest& manifest) {
    std::string text = fmt::format(
        "set {}: {}, {}\nstarted {}, ended {}\nserver {} on {}, notes.ini {}{}\nmodule {} {}\n",
        manifest.set, manifest.level, status_text(manifest), utc_time(manifest.started),
        utc_time(complete_at(manifest)), server_text(manifest), for_terminal(manifest.host),
        for_terminal(manifest.notes_ini),
        manifest.id_file.empty() ? "" : ", ID file " + for_terminal(manifest.id_file),
        for_terminal(manifest.module_client), for_terminal(manifest.module_version));
    if (manifest.reason == "owed")
        text += "saves what an earlier run prepared and did not store\n";
    if (!manifest.base.empty())
        text += fmt::format("builds on {}{}\n", manifest.base,
                            manifest.previous.empty() ? ""
                                                      : ", its logs continue " + manifest.previous);
    if (std::string logs = log_range_text(manifest); logs != "-")
        text += fmt::format("transaction logs {}\n", logs);
    if (!manifest.predecessor.empty())
        text += fmt::format("came after {}\n", manifest.predecessor);
    for (const LogGap& gap : manifest.log_gaps)
        text += describe(gap) + "\n";
    if (manifest.left_out.any())
        text += left_out_text(manifest.left_out) + "\n";
    text += left_out_databases_text(manifest);
    ManifestTotals sum = totals(manifest);
    text += fmt::format(
        "{}{}, {} new in the store\n", human_bytes(sum.bytes),
        sum.changed_bytes ? fmt::format(", {} of it changed", human_bytes(*sum.changed_bytes)) : "",
        human_bytes(manifest.new_bytes));
    if (!manifest.close_error.empty())
        text += fmt::format("the server did not close the backup: {}\n",
                            for_terminal(manifest.close_error));
    return text;
}

std::string items_text(const Manifest& manifest) {
    Table table({"KIND", "BYTES ", "CHANGED ", "STORED ", "MODIFIED", "OWNER", "PATH"});
    for (const ManifestItem& item : manifest.items) {
        table.add({item.status == ItemStatus::stored   ? item_kind_name(item.kind)
                   : item.status == ItemStatus::failed ? "FAILED"
                                                       : "LEFT OUT",
                   item.object.empty() ? "-" : std::to_string(item.size),
                   item.changed_size ? std::to_string(*item.changed_size) : "-",
                   item.object.empty() ? "-" : std::to_string(item.stored_size),
                   item.has_metadata ? utc_time(item.mtime_ns / 1'000'000'000) : "-",
                   item.owner.empty() ? std::to_string(item.uid) : for_terminal(item.owner),
                   for_terminal(item.path)});
    }
    return table.text();
}

// What of the items the table has no room for.
std::string notes_text(const Manifest& manifest) {
    std::string notes;
    for (const ManifestItem& item : manifest.items) {
        if (item.log)
            notes += fmt::format("log {}{}: {}\n", item.log->number,
                                 item.log->active ? " (active)" : "", for_terminal(item.path));
        if (!item.target.empty())
            notes +=
                fmt::format("link: {} -> {}\n", for_terminal(item.path), for_terminal(item.target));
        if (item.status == ItemStatus::failed)
            notes +=
                fmt::format("failed: {}: {}\n", for_terminal(item.path), for_terminal(item.reason));
        for (const std::string& warning : item.warnings)
            notes +=
                fmt::format("warning: {}: {}\n", for_terminal(item.path), for_terminal(warning));
    }
    return notes;
}

int run_show(const ShowOptions& options) {
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::read);
    Manifest manifest = require_set(*store, options.set);
    if (options.json) {
        // The manifest is the document: one form for scripts.
        nlohmann::json document = nlohmann::json::parse(serialize(manifest));
        document.erase("checksum"); // of the file
        document["command"] = "show";
        document["exit_code"] = 0;
        print_json(std::move(document));
        return 0;
    }
    const std::string notes = notes_text(manifest);
    print_output(fmt::format("{}\n{}{}", head_text(manifest), items_text(manifest),
                             notes.empty() ? "" : "\n" + notes));
    return 0;
}

void add_show(CLI::App& command, CommandRuns& runs) {
    auto& show = runs.add(command, run_show);
    add_store_options(command, show);
    add_set_argument(command, show.set);
}

} // namespace

const Command show_command = {"show", show_help, add_show};

} // namespace qrtln
