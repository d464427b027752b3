#include "tests/torture/server_history.h"

#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/database_state.h"
#include "notes_simulator/times.h"
#include "notes_simulator/transaction.h"
#include "notes_simulator/use_mark.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;
using namespace notes_sim;

namespace qrtln::torture {

namespace {

constexpr std::size_t largest_body = 6000; // several notes fit into an extent
constexpr std::int64_t hundredths = 100;
constexpr const char* user = "CN=Anna/O=Sample";

std::string dbiid_of(const std::string& file) {
    return hex(Database(file, Connection::Mode::kReadOnly).header().dbiid);
}

} // namespace

Content read_content(const std::string& file) {
    Database database(file, Connection::Mode::kReadOnly);
    ::domino_sim::DatabaseState state = ::domino_sim::readState(database, true);
    if (state.integrity != "ok")
        throw std::runtime_error(file + ": " + state.integrity);
    Content content{std::move(state.notes), std::move(state.stubs), {}};
    Statement read(database.connection(), "SELECT user,note_id FROM unread");
    while (read.step())
        content.unread.insert({read.text(0), static_cast<NoteId>(read.integer(1))});
    return content;
}

std::string difference(const Content& expected, const std::string& file) try {
    Content found = read_content(file);
    return std::string(expected.notes == found.notes ? "" : "other notes; ") +
           (expected.stubs == found.stubs ? "" : "other stubs; ") +
           (expected.unread == found.unread ? "" : "other unread marks");
} catch (const std::exception& failure) {
    return failure.what();
}

bool ModelDatabase::left_behind(std::size_t copy) const {
    for (std::size_t i = commits.size() - 1; i > copy; --i)
        if (commits[i].jump || commits[i].replayed)
            return !commits[i].replayed;
    return false;
}

const Commit& ModelDatabase::commit_at(std::optional<std::int64_t> moment) const {
    std::size_t last = commits.size() - 1;
    while (moment && last > 0 && commits[last].time > *moment * hundredths)
        --last;
    return commits[last];
}

const Saved* ModelDatabase::newest_before(std::optional<std::int64_t> moment) const {
    const Saved* newest = nullptr;
    for (const Saved& copy : saved)
        if (!moment || copy.ended < *moment)
            newest = &copy;
    return newest;
}

History::History(std::string in, std::string of_store, std::uint64_t seed)
    : folder(std::move(in)),
      store(std::move(of_store)), environment{{"Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY},
                                              {"QRTLN_MODULE", ""}},
      m_content(seed) {
    fs::create_directories(temporary());
    fs::create_directories(fs::path(store).parent_path());
    simulate(
        {"init", "--databases", "5", "--extent-size", "65536", "--seed", std::to_string(seed)});
    simulate({"create", "unlogged.nsf", "--unlogged", "--notes", "5"});
    m_server = ::domino_sim::useServer(server_folder());
    for (const char* name : {"names.nsf", "log.nsf", "mail.box", "mail/user1.nsf"})
        adopt(name, true);
    for (const char* name : {"pubnames.ntf", "unlogged.nsf"})
        adopt(name, false);
}

void History::adopt(const std::string& name, bool logged) {
    databases[name].logged = logged;
    observe(name);
}

bool History::observe(const std::string& name) {
    const std::vector<Commit>& commits = database(name).commits;
    Commit found = {nowInHundredths(), read_content(path_of(name)), dbiid_of(path_of(name))};
    if (!commits.empty() && commits.back().content == found.content &&
        commits.back().dbiid == found.dbiid)
        return true;
    database(name).commits.push_back(std::move(found));
    return false;
}

void History::note_restored(const std::string& name) {
    if (!observe(name))
        return;
    Commit again = {nowInHundredths(), database(name).present(), dbiid_of(path_of(name))};
    database(name).commits.push_back(std::move(again));
}

void History::create(const std::string& name, std::uint64_t seed, bool logged) {
    ::domino_sim::createDatabase(*m_server, path_of(name), logged, name, 5, seed);
    adopt(name, logged && !isTemplate(path_of(name)));
}

void History::compact(const std::string& name) {
    simulate({"compact", name});
    (void)observe(name);
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
                change.note.subject = dice == 9 ? "" : user;
            }
            change.note.id = note->first;
        }
        changes.push_back(std::move(change));
    }
    return changes;
}

void History::commit(const std::string& name) {
    std::vector<Commit>& commits = database(name).commits;
    std::string path = path_of(name);
    Commit next;
    {
        UseMark mark(*m_server, path);
        Database file(path, Connection::Mode::kReadWrite);
        next.time = commitChanges(*m_server, file, changes_for(commits.back().content)).time;
    }
    next.content = read_content(path);
    next.dbiid = dbiid_of(path);
    next.jump = next.dbiid != commits.back().dbiid;
    commits.push_back(std::move(next));
}

std::vector<std::string> History::live() const {
    std::vector<std::string> names;
    for (const auto& [name, database] : databases)
        if (database.live)
            names.push_back(name);
    return names;
}

std::vector<std::string> History::saved() const {
    std::vector<std::string> names;
    for (const auto& [name, database] : databases)
        if (!database.saved.empty())
            names.push_back(name);
    return names;
}

std::vector<std::string> History::command(const std::vector<std::string>& words) const {
    std::vector<std::string> all = {QRTLN_EXECUTABLE};
    all.insert(all.end(), words.begin(), words.end());
    all.insert(all.end(), {"--store", store});
    if (words.front() != "verify")
        all.insert(all.end(),
                   {"--notes-ini", server_folder() + "/notes.ini", "--tmp-dir", temporary()});
    return all;
}

void History::simulate(std::vector<std::string> words) const {
    words.insert(words.begin(), QRTLN_DOMINO_SIM);
    words.insert(words.begin() + 2, server_folder());
    if (Run done = run_program(words, {}, folder); done.exit_code != 0)
        throw std::runtime_error("domino-sim " + words[1] + ": " + done.errors);
}

} // namespace qrtln::torture
