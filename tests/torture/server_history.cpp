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

std::int64_t seconds_of(const std::string& utc) {
    std::tm fields{};
    if (::strptime(utc.c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields) == nullptr)
        throw std::runtime_error("not a time: " + utc);
    return ::timegm(&fields);
}

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

History::History(const Programs& programs, const std::string& folder, std::uint64_t seed)
    : m_programs(programs), m_folder(folder), m_content(seed) {
    m_environment = {{"Notes_ExecDirectory", programs.simulator}, {"QRTLN_MODULE", ""}};
    fs::create_directory(temporary());
    fs::create_directory(disk());
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
    ModelDatabase& database = m_databases[name];
    database.logged = logged;
    database.commits.push_back({nowInHundredths(), read_content(path_of(name))});
}

void History::create(const std::string& name, std::uint64_t seed) {
    simulate({"create", server_folder(), name, "--notes", "5", "--seed", std::to_string(seed)});
    adopt(name, true);
}

void History::compact(const std::string& name) const {
    simulate({"compact", server_folder(), name});
}

void History::play(int rounds) {
    for (int round = 0; round < rounds; ++round) {
        commit_some(30);
        if (below(3) == 0)
            commit_at_full_second();
        if (round > 0 && below(4) == 0)
            create("mail/later" + std::to_string(round) + ".nsf",
                   static_cast<std::uint64_t>(round));
        bool full = round == 0 || below(4) == 0;
        back_up(full, below(2) == 0);
        commit_at_full_second();
    }
    commit_some(30);
    m_ended = std::time(nullptr);
}

void History::commit_some(std::uint64_t most) {
    for (std::uint64_t left = 1 + below(most); left > 0; --left) {
        auto database = m_databases.begin();
        std::advance(database, static_cast<std::ptrdiff_t>(below(m_databases.size())));
        commit(database->first);
        std::this_thread::sleep_for(std::chrono::milliseconds(below(30)));
    }
}

// A moment has whole seconds: what is committed at one, and just after it, tells a fault of one
// off.
void History::commit_at_full_second() {
    auto now = std::chrono::system_clock::now();
    auto next = std::chrono::ceil<std::chrono::seconds>(now);
    std::this_thread::sleep_until(next - std::chrono::milliseconds(4));
    for (int i = 0; i < 8; ++i)
        for (const char* name : {"names.nsf", "mail/user1.nsf"})
            commit(name);
}

std::vector<NoteChange> History::changes_for(const Content& content) {
    std::vector<NoteChange> changes;
    std::set<NoteId> used;
    for (std::uint64_t left = 1 + below(3); left > 0; --left) {
        NoteChange change = m_content.newNote();
        change.note.body.resize(std::min(change.note.body.size(), largest_body));
        if (std::uint64_t dice = below(10); dice >= 4 && !content.notes.empty()) {
            auto note = content.notes.begin();
            std::advance(note, static_cast<std::ptrdiff_t>(below(content.notes.size())));
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
    {
        UseMark mark(*m_server, path_of(name));
        Database file(path_of(name), Connection::Mode::kReadWrite);
        made = commitChanges(*m_server, file, std::move(changes));
    }
    for (const NoteChange& change : made.changes)
        apply(change, content);
    database.commits.push_back({made.time, std::move(content)});
}

void History::use(const std::string& name) const {
    UseMark mark(*m_server, path_of(name));
    Database file(path_of(name), Connection::Mode::kReadWrite);
    NoteChange change;
    change.note.subject = "after the recovery";
    commitChanges(*m_server, file, {change});
}

void History::back_up(bool full, bool busy) {
    std::map<std::string, std::size_t> commits_before;
    for (const auto& [name, database] : m_databases)
        commits_before[name] = database.commits.size() - 1;
    m_newest_set_started = std::time(nullptr);
    Started backup(command({"backup", "--json", "--level", full ? "full" : "incr"}), m_environment,
                   m_folder);
    while (busy && !backup.ended()) {
        commit_some(2);
    }
    Run run = backup.finish();
    if (run.exit_code != 0)
        throw std::runtime_error("the backup ended with " + std::to_string(run.exit_code) + ": " +
                                 run.errors);
    remember_set(run.output, commits_before);
}

void History::remember_set(const std::string& output,
                           const std::map<std::string, std::size_t>& commits_before) {
    json summary = json::parse(output);
    ++m_sets;
    Saved saved;
    saved.set = summary.at("set");
    saved.ended = seconds_of(summary.at("ended"));
    if (m_first_set_ended == 0)
        m_first_set_ended = saved.ended;
    Run show = run(command({"show", "--json", saved.set}), m_environment, m_folder);
    if (show.exit_code != 0)
        throw std::runtime_error("show: " + show.errors);
    std::set<std::string> paths;
    json set = json::parse(show.output);
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

std::size_t History::commits() const {
    std::size_t sum = 0;
    for (const auto& [name, database] : m_databases)
        sum += database.commits.size() - 1;
    return sum;
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
