// `qrtln prove`: a set is restored and recovered into a scratch folder, and every database of it
// read by the server's library. No live database is touched.

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/base/version.h"
#include "client/commands/command.h"
#include "client/commands/server.h"
#include "client/domino/point_in_time.h"
#include "client/module/control_variables.h"
#include "client/module/temporary_directory.h"
#include "client/recovery/journal.h"
#include "client/recovery/leftovers.h"
#include "client/recovery/operation.h"
#include "client/sets/catalogue.h"
#include "client/sets/manifest.h"
#include "client/sets/proof_record.h"
#include "client/sets/server_scope.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <map>

namespace qrtln {

namespace {

constexpr const char* prove_help =
    R"(Prove that the server, or a set, can be recovered: databases are restored and rolled forward into a
scratch folder, and the server's library reads each of them. The proof is recorded, and
`qrtln list` shows its date. No live database is touched.)";

struct ProveOptions : ServerOptions {
    std::string set;   // "" for the whole server as all sets have it
    std::string state; // keeps what must be written, "" for the store
};

constexpr const char* proof_journal_name = "/proof.json";

// A moment behind everything that the set holds, which local time names unmistakably.
std::int64_t moment_behind(const Manifest& manifest) {
    return shown_once_from(complete_at(manifest));
}

// What is proven: a set, or the whole server as all sets have it.
struct Target {
    Manifest manifest; // that the proof stands beside
    bool newest_state = false;
    std::int64_t moment = 0; // behind everything that is proven
};

Target choose_target(Store& store, const std::string& given, const ServerScope& scope) {
    if (!given.empty()) {
        Target target{require_set(store, given, &scope)};
        target.moment = moment_behind(target.manifest);
        return target;
    }
    Target target;
    std::vector<std::string> names = store.set_names();
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        CatalogueEntry entry = load_set(store, *name, scope);
        if (!entry.problem.empty())
            throw ClientError(
                ExitCode::damage_found,
                fmt::format("the manifest of the set {} {}", for_terminal(*name), entry.problem),
                "`qrtln verify` tells what else is damaged; an older set can be named");
        if (!entry.manifest)
            continue;
        target.moment = std::max(target.moment, moment_behind(*entry.manifest));
        if (!entry.manifest->whole_system)
            continue; // a newer copy of some databases
        target.newest_state = true;
        target.manifest = std::move(*entry.manifest);
        return target;
    }
    OtherServers others = other_servers(store, scope);
    throw ClientError(ExitCode::failed,
                      fmt::format("{} has no set of this whole server{}", store.description(),
                                  others.what.empty() ? "" : ": " + others.what),
                      others.hint.empty()
                          ? "`qrtln backup` stores one; name a set to prove it alone"
                          : others.hint);
}

// A full or copy set stands for itself; the others together with those that they build on.
RecoveryRequest make_request(const ProveOptions& options, const Target& target,
                             const std::string& scratch) {
    const Manifest& manifest = target.manifest;
    RecoveryRequest request;
    request.kind = RecoveryKind::proof;
    bool by_itself = !target.newest_state && (manifest.level == "full" || manifest.level == "copy");
    request.selection.all = manifest.whole_system || manifest.arguments.empty();
    if (target.newest_state)
        request.selection.all = true;
    else if (by_itself)
        request.selection.set = manifest.set;
    else
        request.selection.at = manifest.set.substr(0, compact_time_length);
    if (!request.selection.all && by_itself) {
        for (const ManifestItem& item : manifest.items)
            if (item.kind == ItemKind::database && item.status == ItemStatus::stored)
                request.selection.names.push_back(item.path);
    } else if (!request.selection.all) {
        request.selection.names = manifest.arguments;
    }
    request.to = target.moment;
    request.into = scratch;
    request.tmp_dir = options.tmp_dir;
    return request;
}

// Has the server's library read each database whole: it makes a copy as for a backup, which is
// dropped at once.
std::vector<ProofFailure> read_databases(const OperationContext& context,
                                         const std::vector<DatabaseRecovery>& databases) {
    std::vector<ProofFailure> failures;
    std::map<std::string, std::string> paths;  // by target
    std::map<std::string, std::string> values; // likewise
    for (const DatabaseRecovery& database : databases) {
        paths[database.target] = database.path;
        values[database.target] = database_value(database.target);
    }
    if (values.empty())
        return failures;
    TemporaryDirectory temporary(absolute_path(context.tmp_dir), context.ini.data_directory);
    ModuleSession session(context, {});
    auto read = [&](const std::string& target) {
        bool good = session.prepare(target).usable;
        if (!good)
            failures.push_back(
                {paths[target], "the server's library cannot read it: " + session.reason()});
        return good;
    };
    for (const std::string& target : session.take_copies("check", temporary.path(), values, read))
        failures.push_back({paths[target], "the module did not hand it out to be read"});
    return failures;
}

// What keeps a database from counting as proven.
std::string shortfall(const DatabaseRecovery& database) {
    if (!database.falls_short())
        return {};
    return database.reason.empty() ? outcome_name(database.outcome) : database.reason;
}

Proof prove(const OperationContext& context, const ProveOptions& options, const Target& target,
            const RecoveryJournalFile& file, bool& damaged) {
    const Manifest& manifest = target.manifest;
    RecoveryJournal journal;
    journal.pending_folder = make_folder_for_proof(options.tmp_dir, context.ini.data_directory);
    file.write(journal);
    RecoveryRequest request = make_request(options, target, journal.pending_folder);
    Proof proof;
    proof.set = manifest.set;
    // The moment behind the set may be still to come: nothing later than now is in the logs.
    proof.recovered_to = std::min<std::int64_t>(*request.to, std::time(nullptr));
    proof.client_version = client_version();
    for (const ManifestItem& item : manifest.items)
        if (item.status == ItemStatus::failed)
            proof.failures.push_back({item.path, "it is not in the set: " + item.reason});
    RecoveryResult result;
    if (request.selection.all || !request.selection.names.empty())
        result = run_recovery(context, request, file, journal);
    std::vector<DatabaseRecovery> readable;
    for (const DatabaseRecovery& database : result.databases) {
        std::string problem = shortfall(database);
        if (problem.empty())
            readable.push_back(database);
        else
            proof.failures.push_back({database.path, problem});
    }
    damaged = !result.damaged.empty() || !result.replaced.empty();
    for (const auto* list : {&result.damaged, &result.replaced, &result.failed})
        for (const FailedRestore& failed : *list)
            proof.failures.push_back({failed.path, failed.reason});
    std::vector<ProofFailure> unread = read_databases(context, readable);
    proof.databases = readable.size() - unread.size();
    proof.failures.insert(proof.failures.end(), unread.begin(), unread.end());
    proof.time = std::max<std::int64_t>(std::time(nullptr), proof.recovered_to);
    return proof;
}

// An earlier proof must not stand where a recovery is no longer possible.
void record_missing_logs(Store& store, const Manifest& manifest, const NotesIni& ini,
                         const std::string& reason) {
    Proof proof;
    proof.set = manifest.set;
    proof.time = std::time(nullptr);
    proof.client_version = client_version();
    proof.failures.push_back({log_directory(ini), reason});
    record_proof(store, proof);
}

void clean_up(const RecoveryJournalFile& file) {
    if (std::optional<RecoveryJournal> left = file.read()) {
        print_warnings(abandon_recovery(*left));
        file.remove();
    }
}

int report(const ProveOptions& options, const Target& target, const Proof& proof,
           const std::string& proof_file, bool damaged) {
    int code = static_cast<int>(damaged                  ? ExitCode::damage_found
                                : proof.failures.empty() ? ExitCode::complete
                                                         : ExitCode::items_failed);
    nlohmann::json failures = nlohmann::json::array();
    std::string text = fmt::format(
        "{} databases of {}{}, were recovered, and read by the server's library\n", proof.databases,
        target.newest_state ? "the whole server, up to the set " : std::string("the set "),
        proof.set);
    for (const ProofFailure& failure : proof.failures) {
        text += fmt::format("failed: {}: {}\n", for_terminal(failure.path),
                            for_terminal(failure.reason));
        failures.push_back(
            {{"path", printable_utf8(failure.path)}, {"reason", printable_utf8(failure.reason)}});
    }
    if (!options.state.empty())
        text += fmt::format("the proof is in {}, not in the store: `qrtln list` does not show it\n",
                            for_terminal(proof_file));
    if (options.json)
        print_json({{"command", "prove"},
                    {"proof_file", printable_utf8(proof_file)},
                    {"set", proof.set},
                    {"time", utc_time(proof.time)},
                    {"recovered_to", utc_time(proof.recovered_to)},
                    {"databases", proof.databases},
                    {"failures", failures},
                    {"exit_code", code}});
    else
        print_report(text, code);
    return code;
}

int run_prove(const ProveOptions& options) {
    install_interrupt_handlers();
    CommandServer server(options);
    const NotesIni& ini = server.ini;
    require_usable_tmp_dir(options.tmp_dir, ini.data_directory);
    server.store = open_store_or_state({options.state, options.store, ini.data_directory},
                                       "keep what must be written elsewhere: --state DIR");
    Store& store = *server.store;
    server.use_sets();
    const Target target = choose_target(store, options.set, ini.sets);
    RecoveryJournalFile file(store.runtime_directory() + proof_journal_name);
    clean_up(file); // what a killed run left
    OperationContext context = server.begin_operations();
    bool damaged = false;
    Proof proof;
    try {
        proof = prove(context, options, target, file, damaged);
    } catch (const ClientError& failure) {
        clean_up(file);
        if (failure.exit_code() == static_cast<int>(ExitCode::logs_missing))
            record_missing_logs(store, target.manifest, ini, failure.what());
        throw;
    } catch (...) {
        clean_up(file);
        throw;
    }
    clean_up(file);
    return report(options, target, proof, record_proof(store, proof), damaged);
}

void add_prove(CLI::App& command, CommandRuns& runs) {
    auto& prove = runs.add(command, run_prove);
    add_server_options(command, prove);
    add_origin_options(command, prove);
    command.add_option("SET", prove.set,
                       "The set's name, the beginning of it, or \"latest\" (default: the whole "
                       "server, as it could be recovered now from all sets)");
    add_state_option(command, prove.state, prove.store,
                     "The store is only read, and what must be written (lock, journal, the proof) "
                     "kept in this folder");
    add_tmp_dir(command, prove.tmp_dir,
                "Where the scratch folder is made: needs room for all its databases");
    add_module_options(command, prove);
}

} // namespace

const Command prove_command = {"prove", prove_help, add_prove};

} // namespace qrtln
