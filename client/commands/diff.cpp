// `qrtln diff SET SET`: what became of a server from one set to another.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/diff_sets.h"
#include "client/commands/options.h"
#include "client/commands/set_reading.h"
#include "client/restore/open_store.h"
#include "client/sets/catalogue.h"
#include "client/sets/log_chain.h"
#include "client/sets/name_pattern.h"
#include "client/store/canonical_json.h"
#include "client/store/store.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* diff_help =
    R"(Show what is new, gone and changed from the first SET to the second, both of one server. Names
are below its data directory, wherever that was.
A set is compared as `qrtln restore --all --at SET` would take it: a complete full or copy set with
what it holds, any other with the newest complete one before it and the sets between. What was
deleted since then is therefore not told as gone, and what failed in a set counts as in the older
copy. Where there is no complete one only what both sets hold is compared.
Transaction logs are not compared: what an incr set has of a database in its logs alone shows in the
next set that holds the database. Times alone are no change.)";

struct DiffOptions : StoreOptions {
    std::string before;
    std::string after;
};

constexpr const char* latest_set = "latest";

ServerScope scope_of(const Manifest& manifest) {
    return {manifest.server_name, manifest.own_name, manifest.data_directory,
            manifest.data_directory};
}

// "latest" is that of the server of the other one.
std::pair<Manifest, Manifest> load_both(Store& store, const DiffOptions& options) {
    if (options.before == latest_set && options.after != latest_set) {
        Manifest after = require_set(store, options.after);
        const ServerScope scope = scope_of(after);
        return {require_set(store, latest_set, &scope), std::move(after)};
    }
    Manifest before = require_set(store, options.before);
    const ServerScope scope = scope_of(before);
    return {before,
            require_set(store, options.after, options.after == latest_set ? &scope : nullptr)};
}

void require_one_server(const Manifest& before, const Manifest& after) {
    bool other_own_name =
        !before.own_name.empty() && !after.own_name.empty() && before.own_name != after.own_name;
    if (before.server_name != after.server_name || other_own_name)
        throw ClientError(ExitCode::failed,
                          fmt::format("the sets are of different servers: {} is of {}, {} of {}",
                                      before.set, server_text(before), after.set,
                                      server_text(after)),
                          "`qrtln list --server NAME` shows the sets of one server");
}

const char* difference_name(DifferenceKind kind) {
    switch (kind) {
    case DifferenceKind::added:
        return "new";
    case DifferenceKind::gone:
        return "gone";
    case DifferenceKind::changed:
        return "changed";
    }
    return "";
}

// What of a changed item is another, in words.
std::string how_text(const Difference& difference) {
    std::string text;
    auto add = [&](const std::string& more) { text += (text.empty() ? "" : "; ") + more; };
    if (difference.content)
        add(difference.blocks ? fmt::format("content, {} of {} blocks", difference.blocks->first,
                                            difference.blocks->second)
                              : "content");
    for (const Difference::Value& value : difference.values) {
        auto shown = [](const std::string& one) { return one.empty() ? "-" : for_terminal(one); };
        add(fmt::format("{} {} -> {}", value.name, shown(value.before), shown(value.after)));
    }
    return text;
}

std::size_t count_of(const SetDifferences& differences, DifferenceKind kind) {
    return static_cast<std::size_t>(
        std::count_if(differences.list.begin(), differences.list.end(),
                      [kind](const Difference& one) { return one.kind == kind; }));
}

std::size_t own_items(const SetState& state) {
    return static_cast<std::size_t>(
        std::count_if(state.items.begin(), state.items.end(),
                      [&](const auto& entry) { return entry.second.set == state.manifest.set; }));
}

// What a person must know of a set to read the comparison.
std::string state_text(const SetState& state) {
    const Manifest& manifest = state.manifest;
    std::string text =
        fmt::format("{} ({}, {}): ", manifest.set, level_text(manifest), status_text(manifest));
    if (!state.whole)
        text += "only what it holds is compared, as no complete full or copy set of the whole "
                "server is before it\n";
    else if (own_items(state) < state.items.size())
        text += fmt::format("{} of {} items are in it, the others in sets before it\n",
                            own_items(state), state.items.size());
    else
        text += fmt::format("{} items\n", state.items.size());
    if (std::string logs = log_range_text(manifest); manifest.level == "incr" && logs != "-")
        text += fmt::format("  changes that its transaction logs {} alone have are not compared\n",
                            logs);
    for (const ManifestItem& item : manifest.items)
        if (item.status != ItemStatus::stored)
            text += fmt::format("  not saved in it: {}: {}\n", for_terminal(item.path),
                                for_terminal(item.reason));
    return text;
}

std::string differences_text(const SetState& before, const SetState& after,
                             const SetDifferences& differences) {
    Table table({"CHANGE", "KIND", "BYTES BEFORE ", "BYTES ", "PATH", "HOW"});
    auto size = [](const SelectedItem* item) {
        return item == nullptr || item->item.object.empty() ? "-" : human_bytes(item->item.size);
    };
    for (const Difference& one : differences.list)
        table.add({difference_name(one.kind),
                   item_kind_name((one.after != nullptr ? one.after : one.before)->item.kind),
                   size(one.before), size(one.after), for_terminal(one.path), how_text(one)});
    std::string text = state_text(before) + state_text(after);
    if (!differences.list.empty())
        text += table.text();
    text += fmt::format("{} new, {} gone, {} changed, {} as they were",
                        count_of(differences, DifferenceKind::added),
                        count_of(differences, DifferenceKind::gone),
                        count_of(differences, DifferenceKind::changed), differences.same);
    if (!differences.not_compared.empty())
        text += fmt::format(", {} in one set alone and not known of the other",
                            differences.not_compared.size());
    return text + "\n";
}

nlohmann::json state_json(const SetState& state) {
    nlohmann::json not_saved = nlohmann::json::array();
    for (const ManifestItem& item : state.manifest.items)
        if (item.status != ItemStatus::stored)
            not_saved.push_back(
                {{"path", printable_utf8(item.path)}, {"reason", printable_utf8(item.reason)}});
    nlohmann::json document = {{"set", state.manifest.set},
                               {"level", state.manifest.level},
                               {"status", status_text(state.manifest)},
                               {"items", state.items.size()},
                               {"own_items", own_items(state)},
                               {"whole", state.whole},
                               {"logs", log_range_json(state.manifest)},
                               {"not_saved", not_saved}};
    return document;
}

nlohmann::json difference_json(const Difference& difference) {
    nlohmann::json document = {
        {"change", difference_name(difference.kind)},
        {"path", printable_utf8(difference.path)},
        {"kind",
         item_kind_name(
             (difference.after != nullptr ? difference.after : difference.before)->item.kind)}};
    for (const auto& [key, item] :
         {std::pair{"before", difference.before}, {"after", difference.after}}) {
        if (item == nullptr)
            continue;
        document[key] = {{"set", item->set}};
        if (!item->item.object.empty())
            document[key]["bytes"] = item->item.size;
    }
    if (difference.kind != DifferenceKind::changed)
        return document;
    document["content_changed"] = difference.content;
    if (difference.blocks) {
        document["changed_blocks"] = difference.blocks->first;
        document["blocks"] = difference.blocks->second;
    }
    for (const Difference::Value& value : difference.values) {
        document["before"][value.name] = printable_utf8(value.before);
        document["after"][value.name] = printable_utf8(value.after);
    }
    return document;
}

nlohmann::json differences_json(const SetState& before, const SetState& after,
                                const SetDifferences& differences) {
    nlohmann::json list = nlohmann::json::array();
    for (const Difference& one : differences.list)
        list.push_back(difference_json(one));
    return {{"command", "diff"},
            {"server", before.manifest.server_name},
            {"before", state_json(before)},
            {"after", state_json(after)},
            {"differences", list},
            {"not_compared", printable_list(differences.not_compared)},
            {"new", count_of(differences, DifferenceKind::added)},
            {"gone", count_of(differences, DifferenceKind::gone)},
            {"changed", count_of(differences, DifferenceKind::changed)},
            {"same", differences.same}};
}

int run_diff(const DiffOptions& options) {
    install_interrupt_handlers();
    std::unique_ptr<Store> store = open_store_for_reading(options.store);
    const auto [first, second] = load_both(*store, options);
    require_one_server(first, second);
    // What cannot be read may have held what is not seen now.
    SetReading reading(*store);
    for (const std::string& name : reading.names())
        if (name <= std::max(first.set, second.set))
            (void)reading.read(name);
    const SetState before = state_of_set(*store, first);
    const SetState after = state_of_set(*store, second);
    const SetDifferences differences = compare_sets(*store, before, after);
    nlohmann::json document = differences_json(before, after, differences);
    document["missing"] = reading.report_missing();
    document["unread"] = reading.report_unread();
    reading.report_denied();
    document["exit_code"] = reading.exit_code();
    if (options.json)
        print_json(document);
    else
        print_output(differences_text(before, after, differences));
    return reading.exit_code();
}

void add_diff(CLI::App& command, CommandRuns& runs) {
    auto& diff = runs.add(command, run_diff);
    add_store_options(command, diff);
    command
        .add_option("BEFORE", diff.before,
                    "A set: its name, the beginning of it, or \"latest\" of the other's server")
        ->required();
    command.add_option("AFTER", diff.after, "Another one, likewise")->required();
}

} // namespace

const Command diff_command = {"diff", diff_help, add_diff};

} // namespace qrtln
