#include "client/commands/backup_base.h"

#include "client/base/output.h"
#include "client/base/text.h"
#include "client/sets/known_base.h"
#include "client/sets/log_chain.h"
#include "client/sets/set_links.h"

#include <ctime>
#include <fmt/format.h>

namespace qrtln {

BackupBase::BackupBase(Store& store, const NotesIni& ini, IndexGuard& index,
                       const BackupOptions& options)
    : m_store(store), m_ini(ini), m_index(index), m_options(options), m_distrusted(store) {}

// The level that is asked for, or a full one where that has nothing to build on, and the base.
void BackupBase::choose(BackupRequest& request) {
    request.level = m_options.level;
    request.base.clear();
    check_index(request);
    check_base(request);
}

// With an entry that is lost from the index a database would silently not be saved.
void BackupBase::check_index(BackupRequest& request) {
    std::string problem = m_index.problem_for(m_ini.data_directory);
    std::optional<BaseSet> base = find_base(m_store, m_ini.sets);
    if (problem.empty() && !m_index.has_note() && base && !base->closed)
        problem =
            fmt::format("the backup of the set {} was not closed and left no index", base->set);
    if (problem.empty() || request.level == "copy")
        return;
    if (m_index.problem().empty() && !base)
        return; // its first backup, of which there is more to say
    bool selects = request.level == "diff" || request.level == "incr";
    bool whole = request.arguments.empty();
    if (selects && !(m_options.auto_full && whole))
        throw ClientError(
            ExitCode::damage_found,
            fmt::format("{}: a backup of level {} might miss databases", problem, request.level),
            "take a full backup now: `qrtln backup --level full` without DATABASE" +
                std::string(whole ? ", or add --auto-full" : ""));
    if (!whole) {
        print_message(fmt::format(
            "warning: {}: take a full backup of the whole server before the next diff or incr",
            problem));
        return;
    }
    print_message(problem + ": this full backup begins a new one");
    request.level = "full";
    if (!m_index.problem().empty())
        m_index.set_aside();
}

void BackupBase::check_base(BackupRequest& request) {
    std::optional<BaseSet> base = find_base(m_store, m_ini.sets);
    // Noted by every run: later ones may see a clock that is right again.
    if (base && std::time(nullptr) < base->started)
        m_distrusted.add(base->set);
    if (request.level != "diff" && request.level != "incr")
        return;
    std::optional<ClientError> problem = problem_with(base, request);
    if (!problem) {
        request.base = base->set;
        request.base_started = base->started;
        return;
    }
    if (!m_options.auto_full || !request.arguments.empty())
        throw ClientError(*problem);
    print_message(problem->what() + std::string(": this backup becomes a full one (--auto-full)"));
    request.level = "full";
}

// Why a backup must not build on its base; nothing: it may.
std::optional<ClientError> BackupBase::problem_with(const std::optional<BaseSet>& base,
                                                    const BackupRequest& request) {
    if (std::string missing = missing_set(base ? base->set : ""); !missing.empty())
        return ClientError(ExitCode::damage_found, missing, missing_set_hint);
    std::string problem;
    OtherServers others;
    if (!base) {
        others = other_servers(m_store, m_ini.sets);
        problem = fmt::format("{} has no complete full set of the whole server {}, which a backup "
                              "of level {} builds on{}",
                              m_store.description(), for_terminal(m_ini.data_directory),
                              request.level, others.what.empty() ? "" : "; " + others.what);
    } else {
        problem = distrust_of(*base, request.level);
    }
    if (problem.empty())
        problem = unknown_base(m_store, base->set);
    if (problem.empty())
        problem = forgotten_since(*base);
    if (problem.empty())
        problem = broken_chain(*base, request);
    if (problem.empty())
        return std::nullopt;
    return ClientError(
        ExitCode::failed, problem,
        fmt::format("take one first: `qrtln backup --level full` without DATABASE{}{}",
                    request.arguments.empty() ? ", or add --auto-full" : "",
                    others.hint.empty() ? "" : "; " + others.hint));
}

// What only a forgotten set had would be passed over, as the server takes it for saved.
std::string BackupBase::forgotten_since(const BaseSet& base) const {
    for (const auto& [set, server] : m_store.absent_sets().all())
        if (set > base.set && !set.ends_with("-copy") &&
            (server.empty() || server == m_ini.server_name))
            return fmt::format(
                "the set {}, which came after {}, was forgotten, and perhaps databases with it",
                set, base.set);
    return {};
}

// A set that is missing behind the base, or that would have been the base; empty: none is.
std::string BackupBase::missing_set(const std::string& base) const {
    SetLinks links;
    for (const std::string& set : m_store.set_names())
        if (set > base)
            if (CatalogueEntry entry = load_set(m_store, set, m_ini.sets); entry.manifest)
                links.add(*entry.manifest);
    for (const MissingSet& missing : links.missing(m_store))
        if (missing.set > base)
            return describe(missing);
    return {};
}

// Why the logs of an incremental backup would lead nowhere; empty: they do. Without --auto-full
// they are stored all the same, and the end tells of the gap: the server may keep no others.
std::string BackupBase::broken_chain(const BaseSet& base, const BackupRequest& request) const {
    if (request.level != "incr" || !m_options.auto_full || !request.arguments.empty())
        return {};
    std::vector<LogGap> gaps = find_log_gaps(load_log_chain(m_store, base.set, m_ini.sets));
    return gaps.empty() ? std::string() : describe(gaps.front());
}

// Why a base tells nothing about what was changed since then; empty: it does.
std::string BackupBase::distrust_of(const BaseSet& base, const std::string& level) {
    m_since = look_at_sets_since(m_store, base, m_ini.sets);
    std::string when;
    if (std::time_t now = std::time(nullptr); now < base.started)
        when = "shows " + utc_time(now);
    else if (!m_since.begun_before.empty())
        when = fmt::format("was set back when the set {} was made", m_since.begun_before);
    else if (m_distrusted.contains(base.set))
        when = "was set back once";
    if (when.empty())
        return {};
    return fmt::format("a backup of level {} would miss changes: the clock {}, before the start of "
                       "the set {} at {}",
                       level, when, base.set, utc_time(base.started));
}

} // namespace qrtln
