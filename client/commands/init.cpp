// `qrtln init`: makes a store before its first backup.

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/store/store.h"

#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* init_help =
    R"(Make a store, in a new or empty folder or on a place elsewhere. `qrtln backup` makes one by itself;
this is for one that is encrypted: then every command takes a key, given with --passphrase-file,
--passphrase-command or --key-file, and nobody reads what the store holds who has none.
Without any key that opens it the store is lost: keep one where the store is not.)";

struct InitOptions : StoreOptions {
    bool encrypt = false;
    std::string label;
    std::uint32_t block_size = 0;
};

int run_init(const InitOptions& options) {
    if (options.encrypt && key_settings().empty())
        throw ClientError(ExitCode::usage, "--encrypt takes a key",
                          "give --passphrase-file, --passphrase-command or --key-file");
    if (!options.encrypt && !options.label.empty())
        throw ClientError(ExitCode::usage, "--label is of the key of an encrypted store",
                          "give --encrypt, too");
    std::unique_ptr<Store> store =
        open_directory_store(options.store, StoreAccess::create, nullptr,
                             {options.block_size, options.encrypt, printable_utf8(options.label)});
    const int code = static_cast<int>(ExitCode::complete);
    if (options.json) {
        print_json({{"command", "init"},
                    {"store", printable_utf8(store->address())},
                    {"id", store->id()},
                    {"encrypted", store->is_encrypted()},
                    {"exit_code", code}});
        return code;
    }
    print_report(fmt::format("made {}{}\n", store->description(),
                             store->is_encrypted() ? ", which is encrypted: without its key "
                                                     "nobody reads it, nor do you"
                                                   : ""),
                 code);
    return code;
}

void add_init(CLI::App& command, CommandRuns& runs) {
    auto& init = runs.add(command, run_init);
    add_store_options(command, init);
    command.add_flag("--encrypt", init.encrypt,
                     "Encrypt it, with a key that the first of the keys given opens");
    add_key_label_option(command, init.label);
    add_block_size_option(command, init.block_size);
}

} // namespace

const Command init_command = {"init", init_help, add_init};

} // namespace qrtln
