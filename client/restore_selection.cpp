#include "client/restore_selection.h"

#include "client/catalogue.h"
#include "client/error.h"
#include "client/interrupt.h"
#include "client/point_in_time.h"
#include "client/text.h"

#include <algorithm>
#include <ctime>
#include <map>

namespace qrtln {

namespace {

constexpr std::size_t compact_time_length = 16; // "20261121T024923Z"

[[noreturn]] void refuse_moment(const std::string& text, const std::string& option,
                                const std::string& reason) {
    throw ClientError(ExitCode::usage, option + " '" + for_terminal(text) + "': " + reason,
                      "give local time as \"YYYY-MM-DD hh:mm\" or \"YYYY-MM-DD hh:mm:ss\", or the "
                      "UTC time of a set as in its name, YYYYMMDDThhmmssZ");
}

// Reads digits and fixed characters: "0" stands for a digit.
bool has_shape(const std::string& text, std::string_view shape) {
    return text.size() == shape.size() &&
           std::equal(text.begin(), text.end(), shape.begin(), [](char have, char want) {
               return want == '0' ? have >= '0' && have <= '9' : have == want;
           });
}

struct Name {
    std::string given;
    std::string path;
    bool closed = false; // no older set has a say
    bool found = false;
    bool exact = false; // an item of this very path was found
};

class Selector {
  public:
    Selector(Store& store, const std::string& data_directory, const SelectionRequest& request)
        : m_store(store), m_request(request) {
        m_result.data_directory = data_directory;
    }
    RestoreSelection run();

  private:
    void resolve_names();
    void take_named_set();
    void take_newest();
    bool counts(const Manifest& manifest, const Moment& moment) const;
    void take(const Manifest& manifest);
    void add(const Manifest& manifest, const ManifestItem& item, bool named);
    void close_covered(const Manifest& manifest);
    bool finished() const;
    void check_found() const;

    Store& m_store;
    const SelectionRequest& m_request;
    RestoreSelection m_result;
    std::vector<Name> m_names;
    bool m_base_found = false;
    std::set<std::string> m_looked_for; // paths of which only damaged copies were found so far
    std::map<std::string, SelectedItem> m_items;
};

RestoreSelection Selector::run() {
    if (!m_request.set.empty())
        take_named_set();
    else
        take_newest();
    check_found();
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
    CatalogueEntry entry = load_set(m_store, resolve_set(m_store, m_request.set));
    if (!entry.manifest)
        throw ClientError(ExitCode::damage_found,
                          "the manifest of the set " + for_terminal(entry.set) + " " +
                              entry.problem,
                          "`qrtln verify` tells what else is damaged; other sets may hold what you "
                          "want");
    const Manifest& manifest = *entry.manifest;
    if (manifest.data_directory != m_result.data_directory && !m_request.elsewhere)
        throw ClientError(ExitCode::failed,
                          "the set " + manifest.set + " is of a server with the data directory " +
                              for_terminal(manifest.data_directory) + ", not " +
                              for_terminal(m_result.data_directory),
                          "restore it to another folder with --to");
    m_result.data_directory = manifest.data_directory;
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

bool Selector::counts(const Manifest& manifest, const Moment& moment) const {
    if (manifest.data_directory != m_result.data_directory)
        return false;
    if (m_request.ended_before && manifest.ended >= *m_request.ended_before)
        return false;
    if (m_request.at.empty())
        return true;
    if (!moment.set_prefix.empty())
        return manifest.set.substr(0, compact_time_length) <= moment.set_prefix;
    return manifest.started <= moment.time;
}

void Selector::take_newest() {
    resolve_names();
    Moment moment;
    if (!m_request.at.empty())
        moment = parse_moment(m_request.at);
    std::vector<std::string> sets = m_store.set_names();
    for (auto set = sets.rbegin(); set != sets.rend() && !finished(); ++set) {
        throw_if_interrupted();
        CatalogueEntry entry = load_set(m_store, *set);
        if (!entry.manifest) {
            m_result.warnings.push_back("the set " + for_terminal(*set) +
                                        " is passed over: its manifest " + entry.problem);
            continue;
        }
        if (!counts(*entry.manifest, moment))
            continue;
        take(*entry.manifest);
        close_covered(*entry.manifest);
    }
}

void Selector::take(const Manifest& manifest) {
    for (const ManifestItem& item : manifest.items) {
        if (item.status != ItemStatus::stored)
            continue;
        bool looked_for = m_looked_for.contains(item.path);
        bool wanted = (m_request.all && !m_base_found) || looked_for;
        bool named = m_request.all || looked_for;
        for (Name& name : m_names) {
            bool exact = item.path == name.path && item.kind != ItemKind::directory;
            if (name.closed || !(exact || is_below(item.path, name.path)))
                continue;
            wanted = name.found = true;
            named = named || exact;
            name.exact = name.exact || exact;
        }
        bool damaged = wanted && m_request.damaged.contains({item.path, item.object});
        if (damaged) // an older one will do, however old
            m_looked_for.insert(item.path);
        else if (wanted)
            m_looked_for.erase(item.path);
        if (wanted && !damaged)
            add(manifest, item, named);
    }
    for (Name& name : m_names)
        name.closed = name.closed || name.exact;
}

void Selector::add(const Manifest& manifest, const ManifestItem& item, bool named) {
    auto [entry, added] = m_items.try_emplace(item.path, SelectedItem{manifest.set, item, named});
    if (added)
        return;
    // The newest counts. Of a log the copy that was taken when it was full: the other is partial.
    const std::optional<LogIdentity>& newer = entry->second.item.log;
    if (newer && item.log && newer->active && !item.log->active &&
        newer->number == item.log->number)
        entry->second = SelectedItem{manifest.set, item, named};
}

// Behind a complete set that covers a folder, older ones know only what is gone.
void Selector::close_covered(const Manifest& manifest) {
    if (!manifest.complete || (manifest.level != "full" && manifest.level != "copy"))
        return;
    m_base_found = m_base_found || manifest.whole_system;
    for (Name& name : m_names)
        if (name.found)
            name.closed = name.closed || manifest.whole_system ||
                          std::any_of(manifest.arguments.begin(), manifest.arguments.end(),
                                      [&](const std::string& argument) {
                                          return is_below(name.path, argument);
                                      });
}

bool Selector::finished() const {
    if (!m_looked_for.empty())
        return false;
    if (m_request.all)
        return m_base_found;
    return std::all_of(m_names.begin(), m_names.end(),
                       [](const Name& name) { return name.closed; });
}

void Selector::check_found() const {
    std::string where = !m_request.set.empty()  ? "the set " + for_terminal(m_request.set)
                        : !m_request.at.empty() ? "no set up to " + for_terminal(m_request.at)
                        : m_request.ended_before
                            ? "no set that ended before " + utc_time(*m_request.ended_before)
                            : "no set";
    std::string hint = m_request.ended_before
                           ? "databases can be recovered to moments after the end of a set that "
                             "has them; `qrtln list` shows the sets"
                           : "name what is to be restored, or a set with --set; `qrtln list` shows "
                             "them";
    if (m_request.all && !m_base_found)
        throw ClientError(ExitCode::failed,
                          where + " in " + m_store.description() +
                              " is a complete full or copy set of the whole server " +
                              for_terminal(m_result.data_directory),
                          hint);
    for (const Name& name : m_names)
        if (!name.found)
            throw ClientError(ExitCode::failed,
                              where + (m_request.set.empty() ? " holds '" : " does not hold '") +
                                  for_terminal(name.given) + "' (" + for_terminal(name.path) + ")",
                              "relative names are below the data directory; `qrtln show` lists "
                              "what a set holds");
}

} // namespace

Moment parse_moment(const std::string& text, const std::string& option) {
    Moment moment;
    std::tm fields{};
    fields.tm_isdst = -1;
    bool utc = has_shape(text, "00000000T000000Z");
    bool seconds = has_shape(text, "0000-00-00 00:00:00");
    if (!utc && !seconds && !has_shape(text, "0000-00-00 00:00"))
        refuse_moment(text, option, "is no time that is understood");
    const char* end = utc       ? ::strptime(text.c_str(), "%Y%m%dT%H%M%SZ", &fields)
                      : seconds ? ::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &fields)
                                : ::strptime(text.c_str(), "%Y-%m-%d %H:%M", &fields);
    if (end == nullptr || *end != '\0')
        refuse_moment(text, option, "there is no such time");
    if (utc) {
        moment.time = ::timegm(&fields);
        if (utc_time_compact(moment.time) != text)
            refuse_moment(text, option, "there is no such time");
        moment.set_prefix = text;
        return moment;
    }
    std::vector<std::time_t> answers = times_shown_as(fields);
    if (answers.empty())
        refuse_moment(text, option, "there is no such time, or the clock skips it");
    if (answers.size() > 1)
        refuse_moment(text, option, "the clock repeats this hour: give the time in UTC");
    moment.time = answers[0];
    return moment;
}

RestoreSelection select_for_restore(Store& store, const std::string& data_directory,
                                    const SelectionRequest& request) {
    return Selector(store, data_directory, request).run();
}

} // namespace qrtln
