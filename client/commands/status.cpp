// `qrtln status`: the ledger of recoverability.

#include "client/base/duration.h"
#include "client/base/error.h"
#include "client/base/file_io.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/commands/command.h"
#include "client/commands/options.h"
#include "client/domino/notes_ini.h"
#include "client/ledger/ledger.h"
#include "client/ledger/ledger_text.h"
#include "client/ledger/metrics.h"
#include "client/ledger/page.h"
#include "client/store/key_settings.h"
#include "client/store/store.h"

#include <ctime>
#include <fmt/format.h>
#include <sys/stat.h>

namespace qrtln {

namespace {

constexpr const char* status_help =
    R"(Tell for each database of the store to which moments it can be recovered, where that has
gaps, and what to do. The store alone is read; with --notes-ini also which databases there are.
Of several stores, each with its --store, all is told at once: one that cannot be read does not keep
the others from it.)";

constexpr const char* status_codes = R"(Exit codes:
  0  everything is recoverable
  3  a database was never saved, is older than --max-age, or was restored and not saved since
  4  a manifest is damaged, a set is missing, or a database is damaged in the store
 16  transaction logs are missing behind the newest copy of a database: take a full backup
  1, 2, 10, 12, 13, 15  no ledger was made: failed, wrong usage, no store, no permission, no such
     server, a place elsewhere failed; of several stores one could not be read
)";

struct StatusOptions {
    std::vector<std::string> stores;
    bool json = false;
    std::string server;    // empty: all
    std::string notes_ini; // empty: nobody looks at a server
    std::string max_age;   // a duration; empty: none is too old
    std::string metrics;   // files that are written; empty: none
    std::string html;
};

// What is about to be replaced is a file, and none of the store's.
void require_replaceable(const std::string& option, const std::string& file, const Store& store) {
    struct stat status {};
    const bool is_there = ::lstat(file.c_str(), &status) == 0;
    if (is_there && !S_ISREG(status.st_mode))
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write {} {}: it is {}", option, for_terminal(file),
                                      file_type_name(status.st_mode)),
                          "name a file, which is replaced as a whole");
    if (lies_in(real_path_of_new(file).value_or(file), store.location()))
        throw ClientError(
            ExitCode::failed,
            fmt::format("cannot write {} {}: it is inside the store", option, for_terminal(file)),
            "name a file elsewhere");
}

// Others read it: a web server, or what collects metrics.
void write_for_all(const std::string& option, const std::string& file, const std::string& content) {
    constexpr mode_t for_all = 0644;
    if (int error = replace_file(file, content, for_all); error != 0)
        throw ClientError(ExitCode::failed,
                          fmt::format("cannot write {} {}: {}", option, for_terminal(file),
                                      system_error_text(error)),
                          "the old file is left as it was, if there was one");
}

LedgerRequest make_ledger_request(const StatusOptions& options, std::optional<NotesIni>& ini) {
    LedgerRequest request;
    request.now = std::time(nullptr);
    request.server = options.server;
    if (!options.max_age.empty()) {
        request.max_age = parse_duration(options.max_age);
        if (!request.max_age)
            throw ClientError(
                ExitCode::usage,
                fmt::format("--max-age '{}' is no length of time", for_terminal(options.max_age)),
                duration_hint);
    }
    if (!options.notes_ini.empty()) {
        ini = load_notes_ini(options.notes_ini);
        if (!options.server.empty())
            ini->server_name = ini->sets.name = options.server;
        request.ini = &*ini;
    }
    return request;
}

// The places that were named: stores, and files.
struct StatusFiles {
    const std::string& metrics;
    const std::string& html;
};

Ledger ledger_of(const std::string& place, const LedgerRequest& request, const StatusFiles& files) {
    std::unique_ptr<Store> store = open_directory_store(place, StoreAccess::read);
    for (const auto& [option, file] :
         {std::pair("--metrics", files.metrics), std::pair("--html", files.html)})
        if (!file.empty())
            require_replaceable(option, file, *store);
    return make_ledger(*store, request);
}

Ledger ledger_of_all(const std::vector<std::string>& stores, const LedgerRequest& request,
                     const StatusFiles& files) {
    if (request.ini != nullptr)
        throw ClientError(ExitCode::usage, "--notes-ini is of one server, and takes one store",
                          "ask for that one by itself");
    key_settings().takes_plain_stores = true; // the keys are those of some of them
    std::vector<Ledger> ledgers;
    for (const std::string& store : stores) {
        try {
            ledgers.push_back(ledger_of(store, request, files));
        } catch (const ClientError& failure) {
            const int code = failure.exit_code();
            if (code == static_cast<int>(ExitCode::usage) ||
                code > static_cast<int>(ExitCode::interrupted))
                throw;
            if (code != static_cast<int>(ExitCode::no_such)) // others may have the server
                ledgers.push_back(ledger_of_failure(store_address(store), failure, request));
        }
    }
    if (ledgers.empty())
        throw ClientError(
            ExitCode::no_such,
            fmt::format("no store has a set of the server {}", for_terminal(request.server)),
            "`qrtln list` shows the sets and their servers");
    return join_ledgers(std::move(ledgers));
}

int run_status(const StatusOptions& options) {
    std::optional<NotesIni> ini;
    const LedgerRequest request = make_ledger_request(options, ini);
    const std::string metrics = options.metrics.empty() ? "" : absolute_path(options.metrics);
    const std::string html = options.html.empty() ? "" : absolute_path(options.html);
    const StatusFiles files = {metrics, html};
    const Ledger ledger = options.stores.size() == 1
                              ? ledger_of(options.stores.front(), request, files)
                              : ledger_of_all(options.stores, request, files);
    if (!metrics.empty())
        write_for_all("--metrics", metrics, ledger_metrics(ledger));
    if (!html.empty())
        write_for_all("--html", html, ledger_page(ledger));
    if (options.json) {
        nlohmann::json document = ledger_json(ledger);
        document["command"] = "status";
        print_json(document);
    } else {
        print_output(ledger_text(ledger));
    }
    return ledger.exit_code();
}

void add_status(CLI::App& command, CommandRuns& runs) {
    auto& status = runs.add(command, run_status);
    CLI::Option& store =
        *command.add_option("--store", status.stores,
                            "The folder of a store, or rclone:REMOTE:PATH of one elsewhere "
                            "(repeatable)");
    may_be_repeated(store);
    store.envname("QRTLN_STORE")->type_name("DIR")->required();
    add_remote_options(command);
    add_key_options(command);
    command.add_flag("--json", status.json, "One JSON document on standard output");
    command.add_option("--server", status.server, "Only this server (default: all of the store)")
        ->envname("QRTLN_SERVER")
        ->type_name("NAME");
    command
        .add_option("--notes-ini", status.notes_ini,
                    "A server's notes.ini: databases below its data directory that no set holds "
                    "count as never saved")
        ->type_name("FILE");
    command
        .add_option("--max-age", status.max_age,
                    "How old what the store has of a database may be: 36h, 7d")
        ->type_name("DURATION");
    command
        .add_option("--metrics", status.metrics,
                    "Write metrics for node-exporter's textfile collector to this file, *.prom")
        ->type_name("FILE");
    command.add_option("--html", status.html, "Write the ledger as one page to this file")
        ->type_name("FILE");
}

} // namespace

const Command status_command = {"status", status_help, add_status, status_codes};

} // namespace qrtln
