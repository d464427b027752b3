// `qrtln forget SET…`: sets that are no longer wanted, or that are gone for good.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/sets/catalogue.h"
#include "client/sets/set_links.h"
#include "client/store/canonical_json.h"
#include "client/store/store.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace qrtln {

namespace {

constexpr const char* forget_help =
    R"(Forget sets: remove them, or say of missing ones that they are gone for good.
Their contents stay in the store.)";

struct ForgetOptions : StoreOptions {
    std::vector<std::string> sets;
};

// The full names; of sets that are missing only these will do.
std::set<std::string> names_of(Store& store, const std::vector<std::string>& given,
                               const SetLinks& links) {
    std::set<std::string> missing;
    for (const MissingSet& set : links.missing(store))
        missing.insert(set.set);
    std::set<std::string> names;
    for (const std::string& name : given)
        names.insert(missing.contains(name) ? name : resolve_set(store, name));
    return names;
}

int run_forget(const ForgetOptions& options) {
    install_interrupt_handlers();
    std::unique_ptr<Store> store = open_directory_store(options.store, StoreAccess::change);
    std::vector<std::string> there = store->set_names();
    SetLinks all;
    std::map<std::string, std::string> servers; // of the sets that can be read
    for (const std::string& set : there) {
        CatalogueEntry entry = load_set(*store, set);
        if (!entry.manifest)
            continue;
        all.add(*entry.manifest);
        servers[set] = entry.manifest->server_name;
    }
    std::set<std::string> names = names_of(*store, options.sets, all);
    SetLinks kept; // what the others need
    for (const std::string& set : there)
        if (CatalogueEntry entry = load_set(*store, set); entry.manifest && !names.contains(set))
            kept.add(*entry.manifest);
    for (const std::string& name : names)
        if (std::string by = kept.built_on(name);
            !by.empty() && std::find(there.begin(), there.end(), name) != there.end())
            throw ClientError(
                ExitCode::failed,
                fmt::format("the set {} builds on {}: nothing was forgotten", by, name),
                "name both, or keep both");
    for (const std::string& name : names)
        store->forget_set(name, servers[name]);
    std::vector<std::string> list(names.begin(), names.end());
    if (options.json)
        print_json({{"command", "forget"}, {"forgotten", printable_list(list)}, {"exit_code", 0}});
    else
        for (const std::string& name : list)
            print_output(fmt::format("forgotten: {}\n", for_terminal(name)));
    return 0;
}

void add_forget(CLI::App& command, CommandRuns& runs) {
    auto& forget = runs.add(command, run_forget);
    add_store_options(command, forget);
    command.add_option("SET", forget.sets, "The sets' names, or the beginnings of them")
        ->required();
}

} // namespace

const Command forget_command = {"forget", forget_help, add_forget};

} // namespace qrtln
