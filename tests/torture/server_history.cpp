#include "tests/torture/server_history.h"

#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/database_state.h"
#include "notes_simulator/times.h"
#include "notes_simulator/transaction.h"
#include "notes_simulator/use_mark.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;
using namespace notes_sim;
using nlohmann::json;

namespace qrtln::torture {

namespace {

constexpr std::size_t largest_body = 6000; // several notes fit into an extent
constexpr const char* extent_size = "65536";
constexpr std::int64_t hundredths = 100;
constexpr const char* user = "CN=Anna/O=Sample";

void apply(const NoteChange& change, Content& content) {
    NoteId id = change.note.id;
    switch (change.kind) {
    case ChangeKind::kWrite:
        content.stubs.erase(id);
        content.notes[id] = ::domino_sim::digestOf({ChangeKind::kWrite, change.note});
        break;
    case ChangeKind::kDelete:
        content.notes.erase(id);
        content.stubs[id] = ::domino_sim::digestOf(change);
        break;
    case ChangeKind::kMarkUnread:
        content.unread.insert({change.note.subject, id});
        break;
    case ChangeKind::kMarkRead:
        content.unread.erase({change.note.subject, id});
        break;
    }
}

template <typename Key, typename Value>
std::string difference(const char* kind, const std::map<Key, Value>& expected,
                       const std::map<Key, Value>& found) {
    std::size_t missing = 0;
    std::size_t changed = 0;
    std::size_t common = 0;
    for (const auto& [key, value] : expected) {
        auto other = found.find(key);
        common += other != found.end() ? 1 : 0;
        missing += other == found.end() ? 1 : 0;
        changed += other != found.end() && other->second != value ? 1 : 0;
    }
    std::size_t surplus = found.size() - common;
    if (missing + changed + surplus == 0)
        return {};
    return std::string(kind) + ": " + std::to_string(missing) + " missing, " +
           std::to_string(changed) + " different, " + std::to_string(surplus) + " too many; ";
}

} // namespace

Content read_content(const std::string& file) {
    Database database(file, Connection::Mode::kReadOnly);
    ::domino_sim::DatabaseState state = ::domino_sim::readState(database, true);
    if (state.integrity != "ok")
        throw std::runtime_error(file + ": " + state.integrity);
    Content content;
    content.notes = std::move(state.notes);
    content.stubs = std::move(state.stubs);
    Statement read(database.connection(), "SELECT user,note_id FROM unread");
    while (read.step())
        content.unread.insert({read.text(0), static_cast<NoteId>(read.integer(1))});
    return content;
}

std::string difference(const Content& expected, const Content& found) {
    std::string text = difference("notes", expected.notes, found.notes) +
                       difference("stubs", expected.stubs, found.stubs);
    return expected.unread == found.unread ? text : text + "other unread marks; ";
}

bool ModelDatabase::left_behind(std::size_t copy) const {
    for (std::size_t i = commits.size() - 1; i > copy; --i)
        if (commits[i].jump || commits[i].replayed)
            return !commits[i].replayed;
    return false;
}

std::size_t ModelDatabase::commit_at(std::optional<std::int64_t> moment) const {
    std::size_t last = commits.size() - 1;
    while (moment && last > 0 && commits[last].time > *moment * hundredths)
        --last;
    return last;
}

const Saved* ModelDatabase::newest_before(std::optional<std::int64_t> moment) const {
    const Saved* newest = nullptr;
    for (const Saved& copy : saved)
        if (!moment || copy.ended < *moment)
            newest = &copy;
    return newest;
}

std::string ModelDatabase::wrong_with(const std::string& file,
                                      std::optional<std::int64_t> moment) const {
    Content found = read_content(file);
    if (logged)
        return difference(commits[commit_at(moment)].content, found);
    const Saved& set = *newest_before(moment);
    for (std::size_t commit = set.at_least; commit <= set.at_most; ++commit)
        if (commits[commit].content == found)
            return {};
    return "not as it was in " + set.set + ": " + difference(commits[set.at_most].content, found);
}

History::History(const Programs& programs, const std::string& folder, std::uint64_t seed,
                 const std::string& store)
    : m_programs(programs), m_folder(folder), m_store(store.empty() ? disk() + "/store" : store),
      m_content(seed) {
    m_environment = {{"Notes_ExecDirectory", programs.simulator}, {"QRTLN_MODULE", ""}};
    fs::create_directories(temporary());
    fs::create_directories(disk());
    make_server(seed);
}

void History::make_server(std::uint64_t seed) {
    simulate({"init", server_folder(), "--databases", "5", "--extent-size", extent_size, "--seed",
              std::to_string(seed)});
    simulate({"create", server_folder(), "unlogged.nsf", "--unlogged", "--notes", "5"});
    m_server = ::domino_sim::useServer(server_folder());
    for (const char* name : {"names.nsf", "log.nsf", "mail.box", "mail/user1.nsf"})
        adopt(name, true);
    for (const char* name : {"pubnames.ntf", "unlogged.nsf"})
        adopt(name, false);
}

void History::adopt(const std::string& name, bool logged) {
    m_databases[name].logged = logged;
    observe(name);
}

bool History::observe(const std::string& name) {
    ModelDatabase& database = m_databases.at(name);
    Content content = read_content(path_of(name));
    Id16 dbiid = Database(path_of(name), Connection::Mode::kReadOnly).header().dbiid;
    std::string text = hex(dbiid);
    if (!database.commits.empty() && database.commits.back().content == content &&
        database.commits.back().dbiid == text)
        return true;
    database.commits.push_back({nowInHundredths(), std::move(content), text, true});
    return false;
}

void History::note_restored(const std::string& name) {
    if (!observe(name))
        return;
    std::vector<Commit>& commits = m_databases.at(name).commits;
    Commit again = commits.back();
    again.time = nowInHundredths();
    again.jump = true;
    again.replayed = false;
    commits.push_back(std::move(again));
}

void History::create(const std::string& name, std::uint64_t seed, bool logged) {
    ::domino_sim::createDatabase(*m_server, path_of(name), logged, name, 5, seed);
    adopt(name, logged && !isTemplate(path_of(name)));
}

void History::compact(const std::string& name) const {
    simulate({"compact", server_folder(), name});
}

std::vector<NoteChange> History::changes_for(const Content& content) {
    std::vector<NoteChange> changes;
    std::set<NoteId> used;
    for (std::uint64_t left = 1 + m_content.below(3); left > 0; --left) {
        NoteChange change = m_content.newNote();
        change.note.body.resize(std::min(change.note.body.size(), largest_body));
        if (std::uint64_t dice = m_content.below(10); dice >= 4 && !content.notes.empty()) {
            auto note = content.notes.begin();
            std::advance(note, static_cast<std::ptrdiff_t>(m_content.below(content.notes.size())));
            if (!used.insert(note->first).second)
                continue;
            if (dice >= 7) {
                change.kind = dice == 7   ? ChangeKind::kMarkUnread
                              : dice == 8 ? ChangeKind::kMarkRead
                                          : ChangeKind::kDelete;
                change.note = Note{};
                if (dice != 9)
                    change.note.subject = user;
            }
            change.note.id = note->first;
        }
        changes.push_back(std::move(change));
    }
    return changes;
}

void History::commit(const std::string& name) {
    ModelDatabase& database = m_databases.at(name);
    Content content = database.commits.back().content;
    std::vector<NoteChange> changes = changes_for(content);
    notes_sim::Commit made;
    std::string dbiid;
    {
        UseMark mark(*m_server, path_of(name));
        Database file(path_of(name), Connection::Mode::kReadWrite);
        made = commitChanges(*m_server, file, std::move(changes));
        dbiid = hex(file.header().dbiid);
    }
    for (const NoteChange& change : made.changes)
        apply(change, content);
    bool jump = dbiid != database.commits.back().dbiid;
    database.commits.push_back({made.time, std::move(content), dbiid, jump});
}

void History::back_up(bool full) {
    std::map<std::string, std::size_t> commits_before;
    for (const auto& [name, database] : m_databases)
        commits_before[name] = database.commits.size() - 1;
    Run run = qrtln({"backup", "--json", "--level", full ? "full" : "incr"});
    if (run.exit_code != 0)
        throw std::runtime_error("the backup ended with " + std::to_string(run.exit_code) + ": " +
                                 run.errors);
    remember_set(run.output, commits_before);
}

void History::remember_set(const std::string& output,
                           const std::map<std::string, std::size_t>& commits_before) {
    json summary = json::parse(output);
    Saved saved;
    saved.set = summary.at("set");
    Run show = run(command({"show", "--json", saved.set}), m_environment, m_folder);
    if (show.exit_code != 0)
        throw std::runtime_error("show: " + show.errors);
    std::set<std::string> paths;
    json set = json::parse(show.output);
    saved.ended = set.at("ended");
    for (const json& item : set.at("items"))
        if (item.at("kind") == "database")
            paths.insert(item.at("path"));
    for (auto& [name, database] : m_databases) {
        if (!paths.contains(path_of(name)))
            continue;
        saved.at_least = commits_before.at(name);
        saved.at_most = database.commits.size() - 1;
        database.saved.push_back(saved);
    }
}

std::vector<std::string> History::command(const std::vector<std::string>& words) const {
    std::vector<std::string> all = {m_programs.qrtln};
    all.insert(all.end(), words.begin(), words.end());
    all.insert(all.end(), {"--store", store()});
    if (words.front() != "show" && words.front() != "verify")
        all.insert(all.end(),
                   {"--notes-ini", server_folder() + "/notes.ini", "--tmp-dir", temporary()});
    return all;
}

Run History::qrtln(const std::vector<std::string>& words, bool traced, Kill kill,
                   CallObserver* observer) const {
    return run(command(words), m_environment, m_folder, traced, kill, observer);
}

void History::simulate(const std::vector<std::string>& words) const {
    std::vector<std::string> all = {m_programs.domino_sim};
    all.insert(all.end(), words.begin(), words.end());
    if (Run done = run(all, {}, m_folder); done.exit_code != 0)
        throw std::runtime_error("domino-sim " + words.front() + ": " + done.errors);
}

void History::forget_sets() {
    fs::remove_all(store());
    fs::remove(path_of("qrtln_archive.json")); // it would keep another store out
    for (auto& [name, database] : m_databases)
        database.saved.clear();
}

void History::keep(const std::string& name) {
    fs::create_directory(kept(name));
    if (run({"/bin/cp", "-a", server_folder(), disk(), kept(name)}, {}, m_folder).exit_code != 0)
        throw std::runtime_error("cannot keep the server");
    m_kept[name] = m_databases;
}

void History::bring_back(const std::string& name) {
    for (const std::string& folder : {server_folder(), disk(), temporary()})
        fs::remove_all(folder);
    fs::create_directory(temporary());
    if (run({"/bin/cp", "-a", kept(name) + "/server", kept(name) + "/disk", m_folder}, {}, m_folder)
            .exit_code != 0)
        throw std::runtime_error("cannot bring the server back");
    m_databases = m_kept.at(name);
}

} // namespace qrtln::torture
