// `qrtln verify`: is every byte that the sets refer to still there and right?

#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/sets/catalogue.h"
#include "client/sets/index_guard.h"
#include "client/sets/manifest.h"
#include "client/sets/proof_record.h"
#include "client/sets/server_runtime.h"
#include "client/sets/set_links.h"
#include "client/store/store.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <map>
#include <set>

namespace qrtln {

namespace {

constexpr const char* verify_help =
    "Read everything that the sets refer to and compare it with its checksums.";

struct VerifyOptions : StoreOptions {
    std::string set; // "" for all
};

struct Damage {
    std::string what; // a manifest, an object or store.json
    std::string problem;
    std::vector<std::pair<std::string, std::string>> items; // set and path that it concerns
};

struct Verification {
    std::vector<Damage> damage;
    std::vector<std::string> information;
    std::set<std::string> servers; // that have sets
    SetLinks links;
    std::vector<ClientError>
        denied; // what this user may not read: nobody knows whether it is whole
    std::size_t sets = 0;
    std::size_t objects = 0;
    std::uint64_t bytes = 0;
};

// Whether nothing that `read` looks at is kept from this user; what is, is noted once.
bool permitted(Verification& result, const std::function<void()>& read) {
    try {
        read();
        return true;
    } catch (const ClientError& failure) {
        if (failure.exit_code() == static_cast<int>(ExitCode::damage_found)) {
            result.damage.push_back({failure.what(), fmt::format("({})", failure.hint()), {}});
            return false;
        }
        if (failure.exit_code() != static_cast<int>(ExitCode::no_permission))
            throw;
        if (std::none_of(result.denied.begin(), result.denied.end(), [&](const ClientError& known) {
                return std::string_view(known.what()) == failure.what();
            }))
            result.denied.push_back(failure);
        return false;
    }
}

// The plain sizes that the sets give for each object: one, unless a manifest lies.
using References = std::map<std::string, std::set<std::uint64_t>>;

References collect_references(Store& store, const std::vector<std::string>& sets,
                              Verification& result) {
    References references;
    for (const std::string& set : sets) {
        throw_if_interrupted();
        CatalogueEntry entry;
        if (!permitted(result, [&] { entry = load_set(store, set); }))
            continue;
        ++result.sets;
        if (!entry.manifest) {
            result.damage.push_back({"manifest of the set " + printable_utf8(set),
                                     printable_utf8(entry.problem),
                                     {{printable_utf8(set), "(all items)"}}});
            continue;
        }
        result.servers.insert(entry.manifest->server_name);
        result.links.add(*entry.manifest);
        for (const ManifestItem& item : entry.manifest->items)
            if (!item.object.empty())
                references[item.object].insert(item.size);
    }
    return references;
}

void check_objects(Store& store, const References& references, Verification& result,
                   std::map<std::string, std::size_t>& damaged) {
    for (const auto& [hash, sizes] : references) {
        ObjectCheck check;
        bool read = permitted(result, [&, &object = hash] {
            check = store.read_object(object, [](Bytes) { throw_if_interrupted(); });
        });
        throw_if_interrupted();
        if (!read)
            continue;
        ++result.objects;
        result.bytes += check.size;
        if (check.problem.empty() && (sizes.size() != 1 || *sizes.begin() != check.size))
            check.problem =
                fmt::format("has {} bytes, which is not the size in the manifest", check.size);
        if (!check.problem.empty()) {
            damaged[hash] = result.damage.size();
            result.damage.push_back({"object " + hash, check.problem, {}});
        }
    }
}

// A second look at the manifests names what the damaged objects belong to: few sets have any, and
// so nothing is kept in memory for the others.
void name_items(Store& store, const std::vector<std::string>& sets, Verification& result,
                const std::map<std::string, std::size_t>& damaged) {
    if (damaged.empty())
        return;
    for (const std::string& set : sets) {
        CatalogueEntry entry;
        (void)permitted(result, [&] { entry = load_set(store, set); });
        if (!entry.manifest)
            continue;
        for (const ManifestItem& item : entry.manifest->items)
            if (auto found = damaged.find(item.object); found != damaged.end())
                result.damage[found->second].items.emplace_back(set, item.path);
    }
}

// The index that the newest note of a server is about.
void check_index(Store& store, const std::string& server, Verification& result) {
    std::string problem;
    use_runtime_of(store, server);
    problem = IndexGuard(store, server).problem();
    if (!problem.empty()) // a backup that ended meanwhile changes index and note, one by one
        problem = IndexGuard(store, server).problem();
    bool told = std::any_of(result.damage.begin(), result.damage.end(),
                            [&](const Damage& damage) { return damage.what == problem; });
    if (!problem.empty() && !told)
        result.damage.push_back({problem, "(take a full backup)", {}});
}

// What stands beside the manifests.
void check_notes(Store& store, const std::vector<std::string>& sets, Verification& result) {
    for (const std::string& set : sets) {
        std::string problem;
        bool read = permitted(result, [&] { (void)load_proof(store, set, problem); });
        if (read && !problem.empty())
            result.damage.push_back({"the proof of the set " + set, problem, {}});
        problem.clear();
        if (permitted(result, [&] { problem = index_note_problem(store, set); }) &&
            !problem.empty())
            result.damage.push_back({problem, "(a full backup leaves a new one)", {}});
    }
    for (const std::string& server : result.servers)
        permitted(result, [&] { check_index(store, server, result); });
}

int report(const Verification& result, bool json) {
    int code = static_cast<int>(!result.damage.empty()  ? ExitCode::damage_found
                                : result.denied.empty() ? ExitCode::complete
                                                        : ExitCode::no_permission);
    nlohmann::json denied = nlohmann::json::array();
    for (const ClientError& failure : result.denied)
        denied.push_back(printable_utf8(failure.what()));
    if (!result.denied.empty())
        print_error(fmt::format("{} could not be checked: {}", result.denied.size(),
                                result.denied[0].what()),
                    result.denied[0].hint());
    if (json) {
        nlohmann::json damage = nlohmann::json::array();
        for (const Damage& one : result.damage) {
            nlohmann::json items = nlohmann::json::array();
            for (const auto& [set, path] : one.items)
                items.push_back({{"set", set}, {"path", printable_utf8(path)}});
            damage.push_back({{"what", one.what}, {"problem", one.problem}, {"items", items}});
        }
        print_json({{"command", "verify"},
                    {"exit_code", code},
                    {"status", !result.damage.empty()  ? "damaged"
                               : result.denied.empty() ? "whole"
                                                       : "no permission"},
                    {"sets", result.sets},
                    {"objects", result.objects},
                    {"bytes", result.bytes},
                    {"damage", damage},
                    {"no_permission", denied},
                    {"information", result.information}});
        return code;
    }
    std::string text;
    for (const Damage& one : result.damage) {
        text += fmt::format("damaged: {} {}\n", for_terminal(one.what), for_terminal(one.problem));
        for (const auto& [set, path] : one.items)
            text += fmt::format("  concerns {}: {}\n", for_terminal(set), for_terminal(path));
    }
    for (const ClientError& failure : result.denied)
        text += fmt::format("no permission: {}\n", failure.what());
    for (const std::string& line : result.information)
        text += fmt::format("note: {}\n", for_terminal(line));
    text += fmt::format(
        "{} sets, {} objects, {} checked: {}{}\n", result.sets, result.objects,
        human_bytes(result.bytes),
        result.damage.empty() ? "no damage" : std::to_string(result.damage.size()) + " damaged",
        result.denied.empty() ? "" : fmt::format(", {} not checked", result.denied.size()));
    print_output(text);
    return code;
}

int run_verify(const VerifyOptions& options) {
    install_interrupt_handlers();
    std::string format_damage;
    std::unique_ptr<Store> store =
        open_directory_store(options.store, StoreAccess::read_damaged, &format_damage);
    Verification result;
    if (!format_damage.empty())
        result.damage.push_back({"the format file", format_damage, {}});
    std::vector<std::string> foreign;
    std::vector<std::string> sets =
        options.set.empty() ? store->set_names(&foreign)
                            : std::vector<std::string>{resolve_set(*store, options.set)};
    // The objects are listed first: one that a running backup adds meanwhile is then not called
    // unreferenced only because its manifest came after the look at the manifests.
    std::vector<std::string> objects;
    try {
        (void)permitted(result, [&] { objects = store->objects(&foreign); });
    } catch (const ClientError& failure) { // what the sets refer to is looked at all the same
        result.damage.push_back({"objects", failure.what(), {}});
    }
    References references = collect_references(*store, sets, result);
    std::map<std::string, std::size_t> damaged;
    check_objects(*store, references, result, damaged);
    name_items(*store, sets, result, damaged);
    check_notes(*store, sets, result);
    std::vector<MissingSet> missing_sets;
    permitted(result, [&] { missing_sets = result.links.missing(*store, options.set.empty()); });
    for (const MissingSet& missing : missing_sets)
        result.damage.push_back(
            {"the set " + printable_utf8(missing.set), "is missing: " + missing.why, {}});
    if (options.set.empty()) {
        std::size_t unreferenced = static_cast<std::size_t>(
            std::count_if(objects.begin(), objects.end(),
                          [&](const std::string& hash) { return !references.contains(hash); }));
        if (unreferenced > 0)
            result.information.push_back(std::to_string(unreferenced) +
                                         " objects belong to no readable set: to one that is "
                                         "missing or forgotten, or a running "
                                         "or killed backup left them");
        for (const std::string& name : foreign)
            result.information.push_back(
                printable_utf8(name) +
                (name.starts_with("sets/") ? " is of no set" : " is no object of the store"));
    }
    return report(result, options.json);
}

void add_verify(CLI::App& command, CommandRuns& runs) {
    auto& verify = runs.add(command, run_verify);
    add_store_options(command, verify);
    command.add_option("SET", verify.set, "Only this set");
}

} // namespace

const Command verify_command = {"verify", verify_help, add_verify};

} // namespace qrtln
