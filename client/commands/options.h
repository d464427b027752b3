// The options that several commands take: their values, and how each is described, once.
#pragma once

#include "client/store/compression.h"

#include <CLI/CLI.hpp>

#include <string>

namespace qrtln {

// What every command takes that reads a store and can answer in JSON.
struct StoreOptions {
    std::string store;
    bool json = false;
};

// What every command takes that runs the module.
struct ServerOptions : StoreOptions {
    std::string notes_ini;
    std::string server;      // its name in the store; empty: the host's
    std::string from_server; // whose sets are taken; empty: its own
    std::string moved;       // "OLD=NEW": where its data directory was, and is
    std::string tmp_dir;     // below it private folders are made
    std::string module;      // empty: found beside the executable
    std::string trace_file;
    unsigned call_timeout = 0; // seconds of the server's silence in one call; 0: none
    bool verbose = false;
    bool as_other_user = false; // neither root nor the owner of the data directory, and knows it
};

// How a moment is written, for the help of an option.
inline constexpr const char* time_help =
    "2026-11-21T02:49:23Z, with another zone, or without one local; or a set's YYYYMMDDThhmmssZ";

// Each adds options to a command, bound to the values, which must outlive its parsing.

// Of stores elsewhere: --state, --bwlimit, --remote-patience and --break-claim, for the whole run.
void add_remote_options(CLI::App& command);
// It takes one value, and may be given several times.
void may_be_repeated(CLI::Option& option);
// Of encrypted stores: --passphrase-file, --passphrase-command and --key-file, for the whole run.
void add_key_options(CLI::App& command);
// --label, of a key.
void add_key_label_option(CLI::App& command, std::string& label);
// --store, which must be given, and these.
void add_store_option(CLI::App& command, std::string& store);
// That and --json.
void add_store_options(CLI::App& command, StoreOptions& options);
// --compression of what a run stores.
void add_compression_option(CLI::App& command, CompressionLevel& level);
// --block-size, of a store that gets packs; 0 unless it is given.
void add_block_size_option(CLI::App& command, std::uint32_t& block_size);
// SET, which must be given.
void add_set_argument(CLI::App& command, std::string& set);
// --notes-ini, --server, --store, --json and --lock-wait.
void add_server_options(CLI::App& command, ServerOptions& options);
// What those take that read another server's sets: --from-server and --data-directory.
void add_origin_options(CLI::App& command, ServerOptions& options);
// --tmp-dir, by itself TMPDIR of the environment; `help` says what is placed there.
void add_tmp_dir(CLI::App& command, std::string& tmp_dir, const std::string& help);
// --lock-wait, which holds for every lock that the run takes.
void add_lock_wait_option(CLI::App& command);
// --state, with `help`, where the store, which --store gives, is on this machine.
void add_state_option(CLI::App& command, std::string& state, const std::string& store,
                      const std::string& help);
void add_as_other_user(CLI::App& command, bool& as_other_user);
// How the module is run: --module, --call-timeout, --verbose, --trace and --as-other-user.
void add_module_options(CLI::App& command, ServerOptions& options);

} // namespace qrtln
