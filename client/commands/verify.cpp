// `qrtln verify`: is every byte that the sets refer to still there and right?

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/commands/verification.h"
#include "client/sets/catalogue.h"
#include "client/sets/set_links.h"
#include "client/store/store.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* verify_help =
    "Read everything that the sets refer to and compare it with its checksums.";

struct VerifyOptions : StoreOptions {
    std::string set; // "" for all
    std::optional<ReadSubset> subset;
};

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
                    {"status", !result.damage.empty()   ? "damaged"
                               : !result.denied.empty() ? "no permission"
                               : result.not_read == 0   ? "whole"
                                                        : "not all read"},
                    {"sets", result.sets},
                    {"objects", result.objects},
                    {"contents", result.contents},
                    {"packs", result.packs},
                    {"not_read", result.not_read},
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
        "{} sets, {} objects, {} contents in {} packs, {} checked: {}{}{}\n", result.sets,
        result.objects, result.contents, result.packs, human_bytes(result.bytes),
        result.damage.empty() ? "no damage" : std::to_string(result.damage.size()) + " damaged",
        result.denied.empty() ? "" : fmt::format(", {} not checked", result.denied.size()),
        result.not_read == 0 ? ""
                             : fmt::format("; of {} objects and packs only whether they are there",
                                           result.not_read));
    print_report(text, code);
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
    bool all = options.set.empty();
    StoreFiles files = list_store_files(*store, result);
    std::vector<std::string> sets =
        all ? store->set_names(&files.foreign)
            : std::vector<std::string>{resolve_set(*store, options.set)};
    (void)permitted(result, [&] { store->hold_sets(sets); });
    verify_sets(*store, sets, all ? &files : nullptr, options.subset, result);
    verify_notes(*store, sets, result);
    std::vector<MissingSet> missing_sets;
    permitted(result, [&] { missing_sets = result.links.missing(*store, all); });
    for (const MissingSet& missing : missing_sets)
        result.damage.push_back(
            {"the set " + printable_utf8(missing.set), "is missing: " + missing.why, {}});
    return report(result, options.json);
}

void add_verify(CLI::App& command, CommandRuns& runs) {
    auto& verify = runs.add(command, run_verify);
    add_store_options(command, verify);
    command.add_option("SET", verify.set, "Only this set");
    command
        .add_option_function<std::string>(
            "--read-data-subset",
            [&verify](const std::string& text) {
                verify.subset = ReadSubset::parse(text);
                if (!verify.subset)
                    throw CLI::ValidationError(
                        "--read-data-subset",
                        fmt::format("'{}': say which of how many parts, as in 2/7, or how much, as "
                                    "in 5%",
                                    for_terminal(text)));
            },
            "Read only a part of the contents, the others need only be there: 2/7 the second of "
            "seven parts, which are the same each time, 5% so much by chance, 0% none")
        ->type_name("PART");
}

} // namespace

const Command verify_command = {"verify", verify_help, add_verify};

} // namespace qrtln
