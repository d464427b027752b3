#include "client/commands/server.h"

#include "client/base/error.h"
#include "client/base/output.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/server_user.h"
#include "client/sets/catalogue.h"
#include "client/sets/server_runtime.h"
#include "client/sets/server_scope.h"

#include <fmt/format.h>
#include <unistd.h>

namespace qrtln {

namespace {

void check_name(const std::string& option, const std::string& name) {
    if (std::string problem = server_name_problem(name); !problem.empty())
        throw ClientError(ExitCode::usage,
                          fmt::format("{} '{}': {}", option, for_terminal(name), problem),
                          "any short name will do, the same for each backup of this server");
}

// The first half of "OLD=NEW", where NEW is the data directory as it is now.
std::string old_data_directory(const std::string& given, const std::string& now) {
    auto refuse = [&](const std::string& reason) {
        throw ClientError(ExitCode::usage,
                          fmt::format("--data-directory '{}': {}", for_terminal(given), reason),
                          "say OLD=NEW: where the data directory was when the sets were made "
                          "(`qrtln show` tells), and where notes.ini says that it is now, " +
                              for_terminal(now));
    };
    std::size_t equals = given.find('=');
    for (; equals != std::string::npos; equals = given.find('=', equals + 1))
        if (absolute_path(given.substr(equals + 1)) == now)
            break;
    if (equals == std::string::npos)
        refuse("it does not end with \"=\" and the data directory of notes.ini");
    std::string old = given.substr(0, equals);
    if (!old.starts_with('/'))
        refuse("the old directory is not a full path");
    return absolute_path(old);
}

// Where no set has the data directory of now, that of the newest set will do.
void take_any_data_directory(Store& store, ServerScope& scope) {
    std::vector<std::string> names = store.set_names();
    std::string newest;
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        CatalogueEntry entry = load_set(store, *name);
        if (!entry.manifest || entry.manifest->server_name != scope.name)
            continue;
        if (scope.covers(*entry.manifest))
            return;
        if (newest.empty())
            newest = entry.manifest->data_directory;
    }
    if (!newest.empty())
        scope.data_directory = scope.recorded_data_directory = newest;
}

} // namespace

CommandServer::CommandServer(const ServerOptions& options, bool data_directory_may_be_missing)
    : m_options(options) {
    if (!options.as_other_user)
        require_readable_notes_ini(options.notes_ini);
    ini = load_notes_ini(options.notes_ini, data_directory_may_be_missing);
    if (!options.as_other_user)
        require_server_user(ini.data_directory);
    if (std::optional<ServerUser> user = server_user(ini.data_directory); user && options.verbose)
        print_message(fmt::format(
            "the server's library is run as {}, the owner of the data directory", user->name));
    if (std::string refused = refused_to_server_user(ini.file, R_OK, ini.data_directory);
        !refused.empty())
        throw ClientError(
            ExitCode::failed,
            fmt::format("the notes.ini {} cannot be read by {}, who owns the data directory and "
                        "runs the server's library: {} is closed to that user",
                        for_terminal(ini.file), server_user(ini.data_directory)->name,
                        for_terminal(refused)),
            "name one with --notes-ini that this user may read, or give the right");
    if (!options.server.empty())
        ini.server_name = options.server;
    check_name("--server", ini.server_name);
    ini.sets.name = ini.server_name;
}

void CommandServer::use_sets(const ServerOptions& origin, bool elsewhere) {
    use_runtime_of(*store, ini.server_name);
    if (!origin.from_server.empty()) {
        check_name("--from-server", origin.from_server);
        ini.sets.name = origin.from_server;
        ini.sets.own_name.clear(); // whichever it was
    }
    if (!origin.moved.empty())
        ini.sets.recorded_data_directory = old_data_directory(origin.moved, ini.data_directory);
    else if (elsewhere)
        take_any_data_directory(*store, ini.sets);
}

OperationContext CommandServer::begin_operations() {
    m_trace = open_trace_file(m_options.trace_file);
    return {.ini = ini,
            .store = *store,
            .tmp_dir = m_options.tmp_dir,
            .module = m_options.module,
            .trace = m_trace.get(),
            .verbose = m_options.verbose,
            .call_timeout = std::chrono::seconds(m_options.call_timeout)};
}

} // namespace qrtln
