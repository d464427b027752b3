#include "client/commands/options.h"

#include "client/base/duration.h"
#include "client/base/lock_wait.h"
#include "client/base/text.h"
#include "client/remote/remote_settings.h"
#include "client/store/key_settings.h"
#include "client/store/store.h"

#include <cstdlib>
#include <fmt/format.h>

namespace qrtln {

namespace {

constexpr const char* duration_type = "DURATION";

// What `set` gets is the length of time.
void add_duration_option(CLI::App& command, const std::string& name, const std::string& help,
                         std::function<void(std::chrono::seconds)> set,
                         const std::string& group = "OPTIONS") {
    command
        .add_option_function<std::string>(
            name,
            [name, set = std::move(set)](const std::string& text) {
                const std::optional<std::chrono::seconds> length = parse_duration(text);
                if (!length)
                    throw CLI::ValidationError(
                        name, fmt::format("'{}': {}", for_terminal(text), duration_hint));
                set(*length);
            },
            help)
        ->type_name(duration_type)
        ->group(group);
}

} // namespace

void add_remote_options(CLI::App& command) {
    constexpr const char* group = "A store elsewhere";
    RemoteSettings& settings = remote_settings();
    command
        .add_option("--state", settings.state,
                    "The folder for what must be local, below it one for each store (default: "
                    "QRTLN_STATE, else /var/lib/qrtln or ~/.local/state/qrtln)")
        ->envname("QRTLN_STATE")
        ->type_name("DIR")
        ->group(group);
    command
        .add_option("--bwlimit", settings.bandwidth,
                    "How much of the line is used, as rclone takes it: 10M is 10 MiB/s, "
                    "\"08:00,1M 19:00,off\" a timetable")
        ->type_name("RATE")
        ->group(group);
    add_duration_option(
        command, "--remote-patience", "How long to go on while the place fails (default: 5m)",
        [](std::chrono::seconds longest) { remote_settings().patience = longest; }, group);
    command
        .add_flag("--break-claim", settings.breaks_claim,
                  "Write to it although another machine said that it does: that one has ended for "
                  "sure")
        ->group(group);
}

void may_be_repeated(CLI::Option& option) {
    option.expected(1)->allow_extra_args(false)->multi_option_policy(
        CLI::MultiOptionPolicy::TakeAll);
}

void add_key_options(CLI::App& command) {
    KeySettings& settings = key_settings();
    const auto add = [&](const char* name, std::vector<std::string>& values, const char* type,
                         const char* help) {
        CLI::Option& option = *command.add_option(name, values, help);
        may_be_repeated(option);
        option.type_name(type)->group("An encrypted store");
    };
    add("--passphrase-file", settings.passphrase_files, "FILE",
        "A file with a passphrase of the store, which nobody else can read");
    add("--passphrase-command", settings.passphrase_commands, "COMMAND",
        "A command, for the shell, that prints a passphrase of the store");
    add("--key-file", settings.key_files, "FILE",
        "A key file of the store, which nobody else can read: 32 random bytes or more");
}

void add_key_label_option(CLI::App& command, std::string& label) {
    command.add_option("--label", label, "What the key is called in `qrtln key list`")
        ->type_name("TEXT");
}

void add_store_option(CLI::App& command, std::string& store) {
    command
        .add_option("--store", store,
                    "The folder of the store, or rclone:REMOTE:PATH of one elsewhere")
        ->envname("QRTLN_STORE")
        ->type_name("DIR")
        ->required();
    add_remote_options(command);
    add_key_options(command);
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
    add_duration_option(command, "--lock-wait",
                        "Wait so long, in all, for locks that other commands have (default: not at "
                        "all): 90s, 15m, 2h",
                        set_lock_wait);
}

void add_state_option(CLI::App& command, std::string& state, const std::string& store,
                      const std::string& help) {
    if (CLI::Option* of_remote = command.get_option_no_throw("--state"); of_remote != nullptr)
        command.remove_option(of_remote);
    command.add_option("--state", state, help)->type_name("DIR");
    // Of a store elsewhere it is what it is for every command.
    command.parse_complete_callback([&state, &store] {
        if (is_elsewhere(store))
            remote_settings().state = std::exchange(state, {});
    });
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
