// `qrtln copy`: sets of one store to another.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/sets/catalogue.h"
#include "client/sets/copy_sets.h"
#include "client/store/canonical_json.h"
#include "client/store/key_settings.h"
#include "client/store/store.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* copy_help =
    R"(Copy sets from one store to another, as one off-site: only what is missing there, each file checked
to its last block on the way. What is interrupted goes on when it is called again.
Without names all sets of the store are copied, but none that was forgotten in the other one.
Either store may be encrypted: the keys that are given are tried on both. A store that is made is not
encrypted: `qrtln init --encrypt` makes one that is.)";

struct CopyOptions {
    std::string from;
    std::string to;
    std::vector<std::string> sets;
    bool decrypt = false;
    bool json = false;
};

int report(const CopiedSets& done, bool json) {
    const ExitCode code = done.left_out.empty() ? ExitCode::complete : ExitCode::damage_found;
    std::uint64_t bytes = 0;
    nlohmann::json copied = nlohmann::json::array();
    std::string text;
    for (const CopiedSets::Set& set : done.copied) {
        bytes += set.bytes;
        copied.push_back({{"set", set.set}, {"files", set.files}, {"bytes", set.bytes}});
        text += fmt::format("{}: {} files, {}\n", set.set, set.files, human_bytes(set.bytes));
    }
    if (json) {
        print_json({{"command", "copy"},
                    {"exit_code", static_cast<int>(code)},
                    {"copied", copied},
                    {"were_there", done.were_there},
                    {"forgotten_there", printable_list(done.forgotten)},
                    {"left_out", printable_list(done.left_out)}});
        return static_cast<int>(code);
    }
    for (const std::string& left : done.left_out)
        text += fmt::format("not copied: {}\n", for_terminal(left));
    for (const std::string& set : done.forgotten)
        text += fmt::format("not copied: {}: it was forgotten there; name it to have it again\n",
                            for_terminal(set));
    text += fmt::format("{} copied, {}; {} there already\n", done.copied.size(), human_bytes(bytes),
                        done.were_there);
    print_report(text, static_cast<int>(code));
    return static_cast<int>(code);
}

int run_copy(const CopyOptions& options) {
    install_interrupt_handlers();
    key_settings().takes_plain_stores = true; // one of both may be
    std::unique_ptr<Store> from = open_directory_store(options.from, StoreAccess::read);
    std::vector<std::string> sets;
    for (const std::string& given : options.sets)
        sets.push_back(resolve_set(*from, given));
    std::sort(sets.begin(), sets.end());
    if (options.sets.empty())
        sets = from->set_names();
    from->hold_sets(sets);
    std::unique_ptr<Store> to = open_directory_store(options.to, StoreAccess::write, nullptr,
                                                     {.block_size = from->block_size()});
    if (to->id() == from->id() && !to->id().empty())
        throw ClientError(ExitCode::failed,
                          "both are the same store, or one is a copy of its files",
                          "name another store, or a new or empty folder, with --to");
    if (!key_settings().empty() && !from->is_encrypted() && !to->is_encrypted())
        throw ClientError(ExitCode::no_permission,
                          "a key was given, but neither store is encrypted",
                          "leave the key out if that is as it should be; `qrtln init --encrypt` "
                          "makes an encrypted store");
    if (from->is_encrypted() && !to->is_encrypted() && !options.decrypt) {
        to->discard_added(); // where it was made just now
        throw ClientError(
            ExitCode::failed,
            fmt::format("{} is encrypted, and {} is not", from->description(), to->description()),
            "name one that `qrtln init --encrypt` made, or say --decrypt");
    }
    return report(copy_sets(*from, *to, sets, !options.sets.empty()), options.json);
}

void add_copy(CLI::App& command, CommandRuns& runs) {
    auto& copy = runs.add(command, run_copy);
    constexpr const char* place = "a folder, or rclone:REMOTE:PATH";
    command.add_option("--from", copy.from, fmt::format("The store that has the sets: {}", place))
        ->type_name("STORE")
        ->required();
    command
        .add_option("--to", copy.to,
                    fmt::format("The store that gets them, made where there is none: {}", place))
        ->type_name("STORE")
        ->required();
    add_remote_options(command);
    add_key_options(command);
    command.add_flag("--decrypt", copy.decrypt,
                     "Copy from an encrypted store to one that is not encrypted");
    command.add_flag("--json", copy.json, "One JSON document on standard output");
    add_lock_wait_option(command);
    command.add_option("SET", copy.sets, "The sets' names, or the beginnings of them");
}

} // namespace

const Command copy_command = {"copy", copy_help, add_copy};

} // namespace qrtln
