// The commands of qrtln: their options, and the functions that run them. Each returns the exit code
// or throws ClientError.
#pragma once

#include "client/backup/busy_wait.h"
#include "client/backup/system_files.h"

#include <string>
#include <vector>

namespace qrtln {

// What every command takes that runs the module.
struct ServerOptions {
    std::string notes_ini;
    std::string store;
    std::string server;      // its name in the store; empty: the host's
    std::string from_server; // whose sets are taken; empty: its own
    std::string moved;       // "OLD=NEW": where its data directory was, and is
    std::string tmp_dir;     // below it private folders are made
    std::string module;      // empty: found beside the executable
    std::string trace_file;
    unsigned call_timeout = 0; // seconds of the server's silence in one call; 0: none
    bool json = false;
    bool verbose = false;
    bool as_other_user = false; // neither root nor the owner of the data directory, and knows it
};

struct BackupOptions : ServerOptions {
    std::string level = "full";       // "full", "copy", "diff" or "incr"
    bool auto_full = false;           // a diff or incr without its base becomes a full one
    bool take_over = false;           // this store archives the server's logs from now on
    bool log_session = false;         // full: logs that come only so are taken within a session
    std::vector<std::string> removed; // folders that were removed on purpose
    bool databases_only = false;      // nothing that the module does not hand out
    std::vector<PathRule> rules;      // of the other files, in the order of the command line
    std::vector<std::string> databases;
    unsigned busy_wait = default_busy_wait; // seconds for databases that others back up or compact
};

struct RestoreOptions : ServerOptions {
    std::vector<std::string> names;
    bool all = false;   // the whole system; without names nothing less says so
    std::string set;    // "" for the newest
    std::string at;     // or a moment
    std::string to;     // "" for the original place
    bool plain = false; // with to: without the folders
    bool activate = false;
    bool keep_replaced = false; // with activate: beside what takes its place
    bool dry_run = false;
};

struct DocumentsOptions : ServerOptions {
    bool changed = false; // else deleted
    std::string database;
    std::string since;
    std::string ids_file; // of changed: the note ids; "-" is standard input
    std::string set;      // "" for the newest
    std::string at;       // or a moment
    bool dry_run = false;
};

struct RecoverOptions : ServerOptions {
    std::vector<std::string> names;
    bool all = false;
    std::string to;   // a moment; "" for the end of the logs
    std::string into; // "" for the original place
    bool new_dbiid = false;
    bool replace_live = false; // also databases that hold what no set leads to
    bool logs_lost = false;    // the server's own logs are really lost
    bool dry_run = false;
    bool abandon = false; // give an unfinished recovery up
    std::string state;    // with into: keeps what must be written, "" for the store
};

struct ProveOptions : ServerOptions {
    std::string set;   // "" for the whole server as all sets have it
    std::string state; // keeps what must be written, "" for the store
};

struct CheckOptions : ServerOptions {
    bool try_library = false; // else nothing but what can be seen without the server's library
    bool no_names = false;    // numbers instead of the names of databases
    int step_timeout = 120;   // seconds without an answer
    std::string database;     // one that may be written to; empty: none
    bool logs = false;        // one log is archived for good
    std::string keep_log;     // with logs: the folder where it is kept
    std::string confirmed;    // with logs: the server's name, where nobody can type it
};

struct StoreOptions {
    std::string store;
    std::string set; // where the command takes one
    bool json = false;
};

struct ForgetOptions {
    std::string store;
    std::vector<std::string> sets;
    bool json = false;
};

struct ExtractOptions {
    std::string store;
    std::string set;
    std::vector<std::string> paths; // full, or below the set's data directory
    bool all = false;               // the whole set
    std::string to;
    bool json = false;
};

struct DumpOptions {
    std::string store;
    std::string set;
    std::string path;
};

int run_backup(const BackupOptions& options);
int run_restore(const RestoreOptions& options);
int run_documents(const DocumentsOptions& options);
int run_recover(const RecoverOptions& options);
int run_prove(const ProveOptions& options);
int run_check(const CheckOptions& options);
int run_list(const StoreOptions& options);
int run_show(const StoreOptions& options);
int run_verify(const StoreOptions& options);
int run_forget(const ForgetOptions& options);
int run_extract(const ExtractOptions& options);
int run_dump(const DumpOptions& options);

} // namespace qrtln
