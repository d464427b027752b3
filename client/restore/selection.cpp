#include "client/restore/selection.h"

#include "client/base/error.h"
#include "client/base/interrupt.h"
#include "client/base/paths.h"
#include "client/base/text.h"
#include "client/domino/original.h"
#include "client/domino/point_in_time.h"
#include "client/restore/selection_search.h"
#include "client/sets/catalogue.h"
#include "client/sets/server_scope.h"
#include "client/sets/set_links.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <map>

namespace qrtln {

namespace {

class Selector {
  public:
    Selector(Store& store, const ServerScope& scope, const SelectionRequest& request)
        : m_search{store, scope, request} {
        m_result.data_directory = scope.data_directory;
    }
    RestoreSelection run();

  private:
    void resolve_names();
    void take_named_set();
    void take_newest();
    void note_left_out(const Manifest& manifest, const ManifestItem& item);
    void warn_about_left_out();
    void take(const Manifest& manifest);
    void add(const Manifest& manifest, const ManifestItem& item, bool named);
    bool has_newest_log(const Manifest& manifest);
    void close_covered(const Manifest& manifest);
    bool finished() const;

    SelectionSearch m_search;
    RestoreSelection m_result;
    std::optional<LogIdentity> m_newest_log;       // of the archive that counts
    bool m_covered = false;                        // a set of the whole system tells what there was
    bool m_others_covered = false;                 // and one of all the files beside the module's
    std::map<std::string, std::string> m_left_out; // databases, and the newest set without them
    std::map<std::string, SelectedItem> m_items;
    SetLinks m_links;
    bool m_passed_others = false;         // sets of other servers
    std::set<std::uint32_t> m_same_names; // logs whose files the server used again for newer ones
};

RestoreSelection Selector::run() {
    if (!m_search.request.set.empty())
        take_named_set();
    else
        take_newest();
    m_search.base_found = m_search.base_found || (m_covered && m_search.looked_for.empty());
    require_found(m_search);
    for (std::string& warning : warnings_about_late(m_search))
        m_result.warnings.push_back(std::move(warning));
    warn_about_left_out();
    auto is = [this](ItemKind kind) {
        return std::any_of(m_items.begin(), m_items.end(),
                           [kind](const auto& entry) { return entry.second.item.kind == kind; });
    };
    if (m_search.request.all && is(ItemKind::log) && !is(ItemKind::log_control))
        m_result.warnings.emplace_back("no set has the log control file of its transaction logs: "
                                       "should they have to come back, the server may not take "
                                       "them");
    m_result.hidden_logs = m_same_names.size();
    for (auto& [path, selected] : m_items)
        m_result.items.push_back(std::move(selected));
    return std::move(m_result);
}

void Selector::resolve_names() {
    m_search.names.clear();
    for (const std::string& given : m_search.request.names) {
        if (given.empty() || ("/" + given + "/").find("/../") != std::string::npos)
            throw ClientError(ExitCode::failed,
                              fmt::format("cannot restore '{}': an empty name, or one with \"..\", "
                                          "names no item",
                                          for_terminal(given)),
                              "`qrtln show` lists what a set holds");
        m_search.names.push_back(
            {given, absolute_path(given.starts_with('/') ? given
                                                         : m_result.data_directory + "/" + given)});
    }
}

void Selector::take_named_set() {
    const Manifest manifest = require_set(m_search.store, m_search.request.set, &m_search.scope);
    resolve_names();
    bool covers_all =
        manifest.whole_system && (manifest.level == "full" || manifest.level == "copy");
    if (m_search.request.all && !covers_all)
        throw ClientError(ExitCode::failed,
                          fmt::format("the set {} does not hold the whole system", manifest.set),
                          fmt::format("--at {} takes it together with the sets that it builds on",
                                      manifest.set.substr(0, compact_time_length)));
    if (!manifest.complete)
        m_result.warnings.push_back(fmt::format("the set {} is incomplete: {} items failed in it",
                                                manifest.set, totals(manifest).failed_items));
    take(manifest);
    m_search.base_found = covers_all;
}

void Selector::take_newest() {
    resolve_names();
    if (!m_search.request.at.empty())
        m_search.moment = parse_moment(m_search.request.at, "--at");
    std::vector<std::string> sets = m_search.store.set_names();
    for (auto set = sets.rbegin(); set != sets.rend() && !finished(); ++set) {
        throw_if_interrupted();
        CatalogueEntry entry = load_set(m_search.store, *set, m_search.scope);
        if (!entry.problem.empty())
            m_result.warnings.push_back(fmt::format("the set {} is passed over: its manifest {}",
                                                    for_terminal(*set), entry.problem));
        m_passed_others = m_passed_others || (!entry.manifest && entry.problem.empty());
        if (!entry.manifest)
            continue;
        m_links.add(*entry.manifest);
        if (!m_search.counts(*entry.manifest))
            continue;
        take(*entry.manifest);
        close_covered(*entry.manifest);
        // `qrtln list` shows this very time, and it may be meant for the set itself.
        if (!m_search.request.at.empty() && m_search.moment.set_prefix.empty() &&
            entry.manifest->started == m_search.moment.time)
            m_result.warnings.push_back(fmt::format(
                "the set {} began at --at '{}' and had nothing then: --at {} takes it", entry.set,
                for_terminal(m_search.request.at), utc_time(complete_at(*entry.manifest))));
    }
    if (m_passed_others)
        m_result.warnings.emplace_back("newer sets of other servers in the store are left alone: "
                                       "`qrtln list` shows them, --from-server takes them");
    // Perhaps the newest copies were in it.
    for (const MissingSet& missing : m_links.missing(m_search.store))
        m_result.warnings.push_back(describe(missing));
}

// Whether the set holds logs of the identity that counts: that of the first set with any.
bool Selector::has_newest_log(const Manifest& manifest) {
    std::vector<LogIdentity> logs;
    for (const ManifestItem& item : manifest.items)
        if (item.log && item.status == ItemStatus::stored &&
            m_search.late_copy(manifest, item) == 0)
            logs.push_back(*item.log);
    if (!m_newest_log && !logs.empty())
        m_newest_log = logs.back();
    return std::any_of(logs.begin(), logs.end(),
                       [this](const LogIdentity& log) { return same_archive(log, *m_newest_log); });
}

// Of what would be taken, were it in the set.
void Selector::note_left_out(const Manifest& manifest, const ManifestItem& item) {
    bool wanted =
        (m_search.request.all && !m_covered) ||
        std::any_of(m_search.names.begin(), m_search.names.end(), [&](const SelectedName& name) {
            return !name.closed && is_below(item.path, name.path);
        });
    if (!wanted || m_items.contains(item.path))
        return;
    m_left_out.try_emplace(item.path, manifest.set);
    if (m_search.request.older_for_left_out && m_search.request.set.empty())
        m_search.looked_for.try_emplace(item.path, LookedFor{m_search.request.all, 0});
}

void Selector::warn_about_left_out() {
    for (const auto& [path, set] : m_left_out) {
        auto taken = m_items.find(path);
        m_result.warnings.push_back(
            fmt::format("{} could not be saved in the set {}, which left it out as --exclude said: "
                        "{}",
                        path, set,
                        taken != m_items.end()
                            ? fmt::format("its copy of {} is taken", taken->second.set)
                            : "it does not come back; where an older set has it, it does when it "
                              "is named"));
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
        auto looked_for = m_search.looked_for.find(item.path);
        bool is_looked_for = looked_for != m_search.looked_for.end();
        bool log = item.kind == ItemKind::log || item.kind == ItemKind::log_control;
        // Attachment objects are in every set of the whole system.
        bool other = (item.kind == ItemKind::other && !is_attachment_object(item.path)) ||
                     item.kind == ItemKind::link ||
                     (item.kind == ItemKind::directory && manifest.other_files);
        bool covered = log ? m_search.base_found : other ? m_others_covered : m_covered;
        bool wanted = (m_search.request.all && !covered) || is_looked_for;
        bool named = m_search.request.all || (is_looked_for && looked_for->second.named);
        std::int64_t late = m_search.late_copy(manifest, item);
        for (SelectedName& name : m_search.names) {
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
        if (late != 0 || m_search.request.damaged.contains({item.path, item.object})) {
            // An older one will do, however old.
            m_search.looked_for[item.path] = {named, late};
            continue;
        }
        if (is_looked_for)
            m_search.looked_for.erase(looked_for);
        add(manifest, item, named);
    }
    for (SelectedName& name : m_search.names) {
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
        bool any_late = std::any_of(
            manifest.items.begin(), manifest.items.end(),
            [&](const ManifestItem& item) { return m_search.late_copy(manifest, item) != 0; });
        m_covered = true;
        m_others_covered = m_others_covered || manifest.other_files;
        m_search.base_found = m_search.base_found || !any_late;
    }
    for (SelectedName& name : m_search.names) {
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
    if (!m_search.looked_for.empty())
        return false;
    if (m_search.request.all)
        return m_search.base_found && m_others_covered;
    return std::all_of(m_search.names.begin(), m_search.names.end(),
                       [](const SelectedName& name) { return name.closed && name.others_closed; });
}

} // namespace

RestoreSelection select_for_restore(Store& store, const ServerScope& scope,
                                    const SelectionRequest& request) {
    return Selector(store, scope, request).run();
}

} // namespace qrtln
