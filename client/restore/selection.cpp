#include "client/restore/selection.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/original.h"
#include "client/domino/point_in_time.h"
#include "client/sets/catalogue.h"
#include "client/sets/server_scope.h"
#include "client/sets/set_links.h"

#include <algorithm>
#include <ctime>
#include <map>

namespace qrtln {

namespace {

struct Name {
    std::string given;
    std::string path;
    bool closed = false;        // no older set has a say
    bool others_closed = false; // likewise of what the client saved beside the module's files
    bool seen = false;          // in a set that counts, perhaps copied too late
    bool found = false;
    bool exact = false; // an item of this very path was found
};

// A path of which no copy so far will do.
struct LookedFor {
    bool named = false;
    std::int64_t late = 0; // when its oldest copy was complete, after the moment; 0: damaged
};

class Selector {
  public:
    Selector(Store& store, const ServerScope& scope, const SelectionRequest& request)
        : m_store(store), m_scope(scope), m_request(request) {
        m_result.data_directory = scope.data_directory;
    }
    RestoreSelection run();

  private:
    void resolve_names();
    void take_named_set();
    void take_newest();
    bool counts(const Manifest& manifest) const;
    std::int64_t late_copy(const Manifest& manifest, const ManifestItem& item) const;
    std::string oldest_copy(const Name& name) const;
    std::string earliest_set(const Name* name) const;
    void warn_about_late();
    void note_left_out(const Manifest& manifest, const ManifestItem& item);
    void warn_about_left_out();
    void take(const Manifest& manifest);
    void add(const Manifest& manifest, const ManifestItem& item, bool named);
    bool has_newest_log(const Manifest& manifest);
    void close_covered(const Manifest& manifest);
    bool finished() const;
    void check_found() const;

    Store& m_store;
    const ServerScope& m_scope;
    const SelectionRequest& m_request;
    RestoreSelection m_result;
    std::vector<Name> m_names;
    Moment m_moment;
    std::optional<LogIdentity> m_newest_log; // of the archive that counts
    bool m_covered = false;                  // a set of the whole system tells what there was
    bool m_others_covered = false;           // and one of all the files beside the module's
    bool m_base_found = false;               // and it was complete at the moment, or one before it
    std::map<std::string, LookedFor> m_looked_for; // by path
    std::map<std::string, std::string> m_left_out; // databases, and the newest set without them
    std::map<std::string, SelectedItem> m_items;
    SetLinks m_links;
    bool m_passed_others = false;         // sets of other servers
    std::set<std::uint32_t> m_same_names; // logs whose files the server used again for newer ones
};

RestoreSelection Selector::run() {
    if (!m_request.set.empty())
        take_named_set();
    else
        take_newest();
    m_base_found = m_base_found || (m_covered && m_looked_for.empty());
    check_found();
    warn_about_late();
    warn_about_left_out();
    auto is = [this](ItemKind kind) {
        return std::any_of(m_items.begin(), m_items.end(),
                           [kind](const auto& entry) { return entry.second.item.kind == kind; });
    };
    if (m_request.all && is(ItemKind::log) && !is(ItemKind::log_control))
        m_result.warnings.emplace_back("no set has the log control file of its transaction logs: "
                                       "should they have to come back, the server may not take "
                                       "them");
    m_result.hidden_logs = m_same_names.size();
    for (auto& [path, selected] : m_items)
        m_result.items.push_back(std::move(selected));
    return std::move(m_result);
}

void Selector::resolve_names() {
    m_names.clear();
    for (const std::string& given : m_request.names) {
        if (given.empty() || ("/" + given + "/").find("/../") != std::string::npos)
            throw ClientError(ExitCode::failed,
                              "cannot restore '" + for_terminal(given) +
                                  "': an empty name, or one with \"..\", names no item",
                              "`qrtln show` lists what a set holds");
        m_names.push_back(
            {given, absolute_path(given.starts_with('/') ? given
                                                         : m_result.data_directory + "/" + given)});
    }
}

void Selector::take_named_set() {
    const Manifest manifest = require_set(m_store, m_request.set, &m_scope);
    resolve_names();
    bool covers_all =
        manifest.whole_system && (manifest.level == "full" || manifest.level == "copy");
    if (m_request.all && !covers_all)
        throw ClientError(ExitCode::failed,
                          "the set " + manifest.set + " does not hold the whole system",
                          "--at " + manifest.set.substr(0, compact_time_length) +
                              " takes it together with the sets that it builds on");
    if (!manifest.complete)
        m_result.warnings.push_back("the set " + manifest.set + " is incomplete: " +
                                    std::to_string(totals(manifest).failed_items) +
                                    " items failed in it");
    take(manifest);
    m_base_found = covers_all;
}

bool Selector::counts(const Manifest& manifest) const {
    if (m_request.ended_before && manifest.ended >= *m_request.ended_before)
        return false;
    if (m_request.at.empty())
        return true;
    if (!m_moment.set_prefix.empty())
        return manifest.set.substr(0, compact_time_length) <= m_moment.set_prefix;
    return manifest.started <= m_moment.time;
}

// When the copy was complete, if that was after the moment, else 0. Sets of earlier versions do not
// tell: before their end.
std::int64_t Selector::late_copy(const Manifest& manifest, const ManifestItem& item) const {
    if (m_request.at.empty() || !m_moment.set_prefix.empty() || item.kind == ItemKind::directory)
        return 0;
    std::int64_t copied = item.copied != 0 ? item.copied : manifest.ended + 1;
    return copied > m_moment.time ? copied : 0;
}

void Selector::take_newest() {
    resolve_names();
    if (!m_request.at.empty())
        m_moment = parse_moment(m_request.at, "--at");
    std::vector<std::string> sets = m_store.set_names();
    for (auto set = sets.rbegin(); set != sets.rend() && !finished(); ++set) {
        throw_if_interrupted();
        CatalogueEntry entry = load_set(m_store, *set, m_scope);
        if (!entry.problem.empty())
            m_result.warnings.push_back("the set " + for_terminal(*set) +
                                        " is passed over: its manifest " + entry.problem);
        m_passed_others = m_passed_others || (!entry.manifest && entry.problem.empty());
        if (!entry.manifest)
            continue;
        m_links.add(*entry.manifest);
        if (!counts(*entry.manifest))
            continue;
        take(*entry.manifest);
        close_covered(*entry.manifest);
        // `qrtln list` shows this very time, and it may be meant for the set itself.
        if (!m_request.at.empty() && m_moment.set_prefix.empty() &&
            entry.manifest->started == m_moment.time)
            m_result.warnings.push_back("the set " + entry.set + " began at --at '" +
                                        for_terminal(m_request.at) +
                                        "' and had nothing then: --at " +
                                        utc_time(complete_at(*entry.manifest)) + " takes it");
    }
    if (m_passed_others)
        m_result.warnings.emplace_back("newer sets of other servers in the store are left alone: "
                                       "`qrtln list` shows them, --from-server takes them");
    // Perhaps the newest copies were in it.
    for (const MissingSet& missing : m_links.missing(m_store))
        m_result.warnings.push_back(describe(missing));
}

// Whether the set holds logs of the identity that counts: that of the first set with any.
bool Selector::has_newest_log(const Manifest& manifest) {
    std::vector<LogIdentity> logs;
    for (const ManifestItem& item : manifest.items)
        if (item.log && item.status == ItemStatus::stored && late_copy(manifest, item) == 0)
            logs.push_back(*item.log);
    if (!m_newest_log && !logs.empty())
        m_newest_log = logs.back();
    return std::any_of(logs.begin(), logs.end(),
                       [this](const LogIdentity& log) { return same_archive(log, *m_newest_log); });
}

// Of what would be taken, were it in the set.
void Selector::note_left_out(const Manifest& manifest, const ManifestItem& item) {
    bool wanted = (m_request.all && !m_covered) ||
                  std::any_of(m_names.begin(), m_names.end(), [&](const Name& name) {
                      return !name.closed && is_below(item.path, name.path);
                  });
    if (!wanted || m_items.contains(item.path))
        return;
    m_left_out.try_emplace(item.path, manifest.set);
    if (m_request.older_for_left_out && m_request.set.empty())
        m_looked_for.try_emplace(item.path, LookedFor{m_request.all, 0});
}

void Selector::warn_about_left_out() {
    for (const auto& [path, set] : m_left_out) {
        auto taken = m_items.find(path);
        m_result.warnings.push_back(
            path + " could not be saved in the set " + set +
            ", which left it out as --exclude said: " +
            (taken != m_items.end() ? "its copy of " + taken->second.set + " is taken"
                                    : "it does not come back; where an older set has it, it does "
                                      "when it is named"));
    }
}

void Selector::take(const Manifest& manifest) {
    bool newest_log = has_newest_log(manifest);
    for (const ManifestItem& item : manifest.items) {
        // An older copy is better than none, where the set was complete without it.
        if (item.status == ItemStatus::left_out)
            note_left_out(manifest, item);
        if (item.status != ItemStatus::stored)
            continue;
        if (item.kind == ItemKind::log_control && !newest_log)
            continue; // it describes another log
        auto looked_for = m_looked_for.find(item.path);
        bool is_looked_for = looked_for != m_looked_for.end();
        bool log = item.kind == ItemKind::log || item.kind == ItemKind::log_control;
        // Attachment objects are in every set of the whole system.
        bool other = (item.kind == ItemKind::other && !is_attachment_object(item.path)) ||
                     item.kind == ItemKind::link ||
                     (item.kind == ItemKind::directory && manifest.other_files);
        bool covered = log ? m_base_found : other ? m_others_covered : m_covered;
        bool wanted = (m_request.all && !covered) || is_looked_for;
        bool named = m_request.all || (is_looked_for && looked_for->second.named);
        std::int64_t late = late_copy(manifest, item);
        for (Name& name : m_names) {
            bool exact = item.path == name.path && item.kind != ItemKind::directory;
            bool open = !(other ? name.others_closed : name.closed) || is_looked_for;
            if (!open || !(exact || is_below(item.path, name.path)))
                continue;
            wanted = name.seen = true;
            name.found = name.found || late == 0;
            named = named || exact;
            name.exact = name.exact || exact;
        }
        if (!wanted || (m_items.contains(item.path) && !item.log))
            continue;
        if (late != 0 && log)
            continue; // the others of its log are wanted, whatever is in this set
        if (late != 0 || m_request.damaged.contains({item.path, item.object})) {
            // An older one will do, however old.
            m_looked_for[item.path] = {named, late};
            continue;
        }
        if (is_looked_for)
            m_looked_for.erase(looked_for);
        add(manifest, item, named);
    }
    for (Name& name : m_names) {
        name.closed = name.closed || name.exact;
        name.others_closed = name.others_closed || name.exact;
    }
}

void Selector::add(const Manifest& manifest, const ManifestItem& item, bool named) {
    bool other_log = item.log && m_newest_log && !same_archive(*item.log, *m_newest_log);
    SelectedItem selected{manifest.set, item, named, other_log};
    auto [entry, added] = m_items.try_emplace(item.path, selected);
    if (added)
        return;
    // The newest counts. Of a log the copy that was taken when it was full: the other is partial.
    const std::optional<LogIdentity>& newer = entry->second.item.log;
    bool completes = newer && item.log && newer->active && !item.log->active &&
                     newer->number == item.log->number;
    if (newer && item.log && !other_log && newer->number != item.log->number)
        m_same_names.insert(item.log->number);
    if (!other_log && (entry->second.other_log || completes))
        entry->second = selected;
}

// Behind a complete set that covers a folder, older ones know only what is gone.
void Selector::close_covered(const Manifest& manifest) {
    if (!manifest.complete || (manifest.level != "full" && manifest.level != "copy"))
        return;
    if (manifest.whole_system) {
        bool any_late =
            std::any_of(manifest.items.begin(), manifest.items.end(),
                        [&](const ManifestItem& item) { return late_copy(manifest, item) != 0; });
        m_covered = true;
        m_others_covered = m_others_covered || manifest.other_files;
        m_base_found = m_base_found || !any_late;
    }
    for (Name& name : m_names) {
        bool covers_others = manifest.whole_system && manifest.other_files;
        name.others_closed = name.others_closed || (name.seen && covers_others);
        if (name.seen)
            name.closed = name.closed || manifest.whole_system ||
                          std::any_of(manifest.arguments.begin(), manifest.arguments.end(),
                                      [&](const std::string& argument) {
                                          return is_below(name.path, argument);
                                      });
    }
}

bool Selector::finished() const {
    if (!m_looked_for.empty())
        return false;
    if (m_request.all)
        return m_base_found && m_others_covered;
    return std::all_of(m_names.begin(), m_names.end(),
                       [](const Name& name) { return name.closed && name.others_closed; });
}

// Perhaps it did not exist at that moment, perhaps an older copy is damaged or was never made.
void Selector::warn_about_late() {
    for (const auto& [path, looked_for] : m_looked_for) {
        ItemKind kind = item_kind_of(path);
        if (looked_for.late != 0 && (kind == ItemKind::database || kind == ItemKind::file))
            m_result.warnings.push_back(path + " is left out: its oldest copy was complete at " +
                                        utc_time(looked_for.late));
    }
}

std::string Selector::oldest_copy(const Name& name) const {
    std::int64_t oldest = 0;
    for (const auto& [path, looked_for] : m_looked_for)
        if (looked_for.late != 0 && is_below(path, name.path) &&
            (oldest == 0 || looked_for.late < oldest))
            oldest = looked_for.late;
    return oldest == 0 ? "" : ": its oldest copy was complete at " + utc_time(oldest);
}

// Where the moment is too early: the first set that would do, and the moment that takes it. Of one
// item, or of the whole system without it.
std::string Selector::earliest_set(const Name* name) const {
    if (!m_request.set.empty() || (m_request.at.empty() && !m_request.ended_before))
        return {};
    for (const std::string& set : m_store.set_names()) {
        throw_if_interrupted();
        CatalogueEntry entry = load_set(m_store, set, m_scope);
        if (!entry.manifest)
            continue;
        const Manifest& manifest = *entry.manifest;
        bool whole = manifest.complete && manifest.whole_system &&
                     (manifest.level == "full" || manifest.level == "copy");
        bool does = name == nullptr ? whole
                                    : std::any_of(manifest.items.begin(), manifest.items.end(),
                                                  [&](const ManifestItem& item) {
                                                      return item.status == ItemStatus::stored &&
                                                             item.kind != ItemKind::directory &&
                                                             is_below(item.path, name->path);
                                                  });
        bool in_time = complete_at(manifest) <= m_request.ended_before.value_or(m_moment.time);
        bool counted = counts(manifest) && (!m_moment.set_prefix.empty() || in_time);
        if (does && counted)
            return {}; // the time is not what is wrong
        if (does)
            return ": the earliest is " + set + ", complete at " + utc_time(complete_at(manifest));
    }
    return {};
}

void Selector::check_found() const {
    // A proof gives both, of which nobody typed one.
    std::string where = !m_request.set.empty() ? "the set " + for_terminal(m_request.set)
                        : !m_request.at.empty()
                            ? "no set up to " + std::string(m_request.ended_before ? "" : "--at ") +
                                  "'" + for_terminal(m_request.at) + "'"
                        : m_request.ended_before
                            ? "no set that ended before --to " + utc_time(*m_request.ended_before)
                            : "no set";
    std::string hint = m_request.ended_before
                           ? "databases can be recovered to moments after the end of a set that "
                             "has them; `qrtln list` shows the sets"
                           : "name what is to be restored, or a set with --set; `qrtln list` shows "
                             "them";
    auto refuse = [&](const std::string& problem, const std::string& first,
                      const std::string& advice) {
        OtherServers others = other_servers(m_store, m_scope);
        throw ClientError(ExitCode::failed,
                          problem + first + (others.what.empty() ? "" : "; " + others.what),
                          (first.empty() ? advice : "take that time or a later one") +
                              (others.hint.empty() ? "" : "; " + others.hint));
    };
    if (m_request.all && !m_base_found)
        refuse(where + " in " + m_store.description() +
                   " is a complete full or copy set of the whole server " +
                   for_terminal(m_result.data_directory),
               earliest_set(nullptr), hint);
    for (const Name& name : m_names) {
        if (name.found)
            continue;
        std::string first = oldest_copy(name);
        if (first.empty())
            first = earliest_set(&name);
        refuse(where + (m_request.set.empty() ? " holds '" : " does not hold '") +
                   for_terminal(name.given) + "' (" + for_terminal(name.path) + ")",
               first,
               "relative names are below the data directory; `qrtln show` lists what a set holds");
    }
}

} // namespace

RestoreSelection select_for_restore(Store& store, const ServerScope& scope,
                                    const SelectionRequest& request) {
    return Selector(store, scope, request).run();
}

} // namespace qrtln
