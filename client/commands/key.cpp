// `qrtln key`: the keys of an encrypted store.

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/store/canonical_json.h"
#include "client/store/store.h"

#include <algorithm>
#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* key_help =
    R"(Show the keys of an encrypted store, give it another one, or take one away. All of them open what
the store is encrypted with, which stays: whoever had a key that was taken away, and a copy of the
store from then, can still read that copy, and with it what comes later. A key that became known
takes a new store, and `qrtln copy`.)";
constexpr const char* key_list_help = "Show which keys there are.";
constexpr const char* key_add_help =
    "Give it another key. The one that is there opens it, as for every command.";
constexpr const char* key_remove_help = "Take a key away, but never the last one.";

struct KeyListOptions : StoreOptions {};
struct KeyAddOptions : StoreOptions {
    KeySettings added;
    std::string label;
};
struct KeyRemoveOptions : StoreOptions {
    std::string id;
};

std::unique_ptr<Store> open_encrypted_store(const std::string& place, StoreAccess access) {
    std::unique_ptr<Store> store = open_directory_store(place, access);
    if (!store->is_encrypted())
        throw ClientError(ExitCode::failed,
                          fmt::format("{} is not encrypted, and has no keys", store->description()),
                          "`qrtln init --encrypt` makes an encrypted store, to which `qrtln copy` "
                          "copies the sets");
    return store;
}

int run_key_list(const KeyListOptions& options) {
    std::unique_ptr<Store> store = open_encrypted_store(options.store, StoreAccess::read);
    std::vector<std::string> problems;
    Table table({"KEY", "KIND", "ADDED", "LABEL"});
    nlohmann::json keys = nlohmann::json::array();
    for (const WrappedKey& key : store->keys(&problems)) {
        table.add({key.id, key.kind, utc_time(key.created),
                   key.label.empty() ? "-" : for_terminal(key.label)});
        keys.push_back({{"id", key.id},
                        {"kind", key.kind},
                        {"created", utc_time(key.created)},
                        {"label", key.label}});
    }
    const int code =
        static_cast<int>(problems.empty() ? ExitCode::complete : ExitCode::damage_found);
    if (options.json)
        print_json({{"command", "key"},
                    {"keys", keys},
                    {"damage", printable_list(problems)},
                    {"exit_code", code}});
    else
        print_output(table.text());
    for (const std::string& problem : problems)
        print_message("damaged: " + problem);
    return code;
}

int run_key_add(const KeyAddOptions& options) {
    const std::vector<Secret> secrets = read_secrets(options.added);
    if (secrets.size() != 1)
        throw ClientError(ExitCode::usage, "one key is added at a time",
                          "give one of --new-passphrase-file, --new-passphrase-command and "
                          "--new-key-file");
    std::unique_ptr<Store> store = open_encrypted_store(options.store, StoreAccess::change);
    const std::string id = store->add_key(secrets.front(), printable_utf8(options.label));
    const int code = static_cast<int>(ExitCode::complete);
    if (options.json)
        print_json({{"command", "key"}, {"id", id}, {"exit_code", code}});
    else
        print_report(fmt::format("the key {} opens {} from now on\n", id, store->description()),
                     code);
    return code;
}

// By the beginning of its id, where that is the only one.
std::string resolve_key(Store& store, const std::string& given) {
    std::vector<std::string> found;
    for (const WrappedKey& key : store.keys())
        if (key.id.starts_with(given))
            found.push_back(key.id);
    if (found.size() == 1)
        return found.front();
    throw ClientError(ExitCode::no_such,
                      fmt::format("{} key of {} begins with {}",
                                  found.empty() ? "no" : "more than one", store.description(),
                                  for_terminal(given)),
                      "`qrtln key list` shows them");
}

int run_key_remove(const KeyRemoveOptions& options) {
    std::unique_ptr<Store> store = open_encrypted_store(options.store, StoreAccess::change);
    const std::string id = resolve_key(*store, options.id);
    store->remove_key(id);
    const int code = static_cast<int>(ExitCode::complete);
    if (options.json)
        print_json({{"command", "key"}, {"id", id}, {"exit_code", code}});
    else
        print_report(fmt::format("the key {} opens {} no more\n", id, store->description()), code);
    return code;
}

void add_key(CLI::App& command, CommandRuns& runs) {
    command.require_subcommand(1);
    CLI::App& list = *command.add_subcommand("list", key_list_help);
    add_store_options(list, runs.add(list, run_key_list));

    CLI::App& added = *command.add_subcommand("add", key_add_help);
    auto& add = runs.add(added, run_key_add);
    add_store_options(added, add);
    added
        .add_option("--new-passphrase-file", add.added.passphrase_files,
                    "A file with the passphrase that is added")
        ->type_name("FILE")
        ->expected(1);
    added
        .add_option("--new-passphrase-command", add.added.passphrase_commands,
                    "A command that prints it")
        ->type_name("COMMAND")
        ->expected(1);
    added.add_option("--new-key-file", add.added.key_files, "The key file that is added")
        ->type_name("FILE")
        ->expected(1);
    add_key_label_option(added, add.label);
    add_lock_wait_option(added);

    CLI::App& removed = *command.add_subcommand("remove", key_remove_help);
    auto& remove = runs.add(removed, run_key_remove);
    add_store_options(removed, remove);
    removed
        .add_option("KEY", remove.id, "The key, or the beginning of it, as `qrtln key list` has it")
        ->required();
    add_lock_wait_option(removed);
}

} // namespace

const Command key_command = {"key", key_help, add_key};

} // namespace qrtln
