#include "client/commands/options.h"

#include "client/base/duration.h"
#include "client/base/lock_wait.h"
#include "client/base/text.h"

#include <cstdlib>
#include <fmt/format.h>

namespace qrtln {

void add_store_option(CLI::App& command, std::string& store) {
    command.add_option("--store", store, "The folder of the store")
        ->envname("QRTLN_STORE")
        ->type_name("DIR")
        ->required();
}

void add_store_options(CLI::App& command, StoreOptions& options) {
    add_store_option(command, options.store);
    command.add_flag("--json", options.json, "One JSON document on standard output");
}

void add_compression_option(CLI::App& command, CompressionLevel& level) {
    const std::map<std::string, CompressionLevel> words = {{"off", no_compression}};
    command
        .add_option("--compression", level,
                    "How strongly what is stored is compressed: from 1, the fastest, to 19; or off "
                    "(default: 3)")
        ->type_name("LEVEL")
        ->transform(CLI::Transformer(words))
        ->check(CLI::Range(no_compression, strongest_compression));
}

void add_block_size_option(CLI::App& command, std::uint32_t& block_size) {
    command
        .add_option("--block-size", block_size,
                    "Of a store that is made or converted: in how large blocks databases are "
                    "compared and stored, 4096 to 65536 bytes (default: 8192)")
        ->type_name("BYTES")
        ->check(CLI::IsMember({4096, 8192, 16384, 32768, 65536}));
}

void add_set_argument(CLI::App& command, std::string& set) {
    command.add_option("SET", set, "The set's name, the beginning of it, or \"latest\"")
        ->required();
}

void add_server_options(CLI::App& command, ServerOptions& options) {
    command.add_option("--notes-ini", options.notes_ini, "The server's notes.ini")
        ->type_name("FILE")
        ->required();
    command
        .add_option("--server", options.server,
                    "The name of the server in the store (default: the host's)")
        ->envname("QRTLN_SERVER")
        ->type_name("NAME");
    add_store_options(command, options);
    add_lock_wait_option(command);
}

void add_origin_options(CLI::App& command, ServerOptions& options) {
    command
        .add_option("--from-server", options.from_server,
                    "Take the sets of this server (default: only its own)")
        ->type_name("NAME");
    command
        .add_option("--data-directory", options.moved,
                    "The sets are of the data directory OLD, which is NEW now")
        ->type_name("OLD=NEW");
}

void add_tmp_dir(CLI::App& command, std::string& tmp_dir, const std::string& help) {
    const char* set = std::getenv("TMPDIR");
    tmp_dir = set != nullptr && *set != '\0' ? set : "/var/tmp";
    command.add_option("--tmp-dir", tmp_dir, help)->type_name("DIR")->capture_default_str();
}

void add_lock_wait_option(CLI::App& command) {
    command
        .add_option_function<std::string>(
            "--lock-wait",
            [](const std::string& text) {
                std::optional<std::chrono::seconds> longest = parse_duration(text);
                if (!longest)
                    throw CLI::ValidationError(
                        "--lock-wait", fmt::format("'{}': {}", for_terminal(text), duration_hint));
                set_lock_wait(*longest);
            },
            "Wait so long, in all, for locks that other commands have (default: not at all): 90s, "
            "15m, 2h")
        ->type_name("DURATION");
}

void add_state_option(CLI::App& command, std::string& state, const std::string& help) {
    command.add_option("--state", state, help)->type_name("DIR");
}

void add_as_other_user(CLI::App& command, bool& as_other_user) {
    command.add_flag("--as-other-user", as_other_user,
                     "Run the server's library as this user, who is neither root nor the owner of "
                     "the data directory");
}

void add_module_options(CLI::App& command, ServerOptions& options) {
    command
        .add_option("--module", options.module,
                    "The database module, libqrtln.so (default: beside this program)")
        ->envname("QRTLN_MODULE")
        ->type_name("FILE");
    command
        .add_option("--call-timeout", options.call_timeout,
                    "Give up when the server's library has kept silent for so many seconds in one "
                    "call (default: never)")
        ->envname("QRTLN_CALL_TIMEOUT")
        ->check(CLI::Range(1U, 1000000U))
        ->type_name("SECONDS");
    command.add_flag("--verbose", options.verbose, "Show the module's messages");
    command.add_option("--trace", options.trace_file, "Append the module's trace to FILE")
        ->type_name("FILE");
    add_as_other_user(command, options.as_other_user);
}

} // namespace qrtln
