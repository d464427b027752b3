// A simulated server whose whole history is remembered: what each database held after every commit.
#pragma once

#include "client/sets/manifest.h"
#include "notes_simulator/base/times.h"
#include "notes_simulator/domino_sim/cli.h"
#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/domino_sim/database_state.h"
#include "notes_simulator/engine/transaction.h"
#include "notes_simulator/server/server.h"
#include "notes_simulator/server/use_mark.h"
#include "tests/torture/traced_run.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>

namespace qrtln::torture {

namespace fs = std::filesystem;

constexpr std::int64_t hundredths = 100; // in a second

// What a database holds: digests of its notes and stubs, and one over its unread marks, too.
struct Content : ::domino_sim::DatabaseState {
    bool operator==(const Content& other) const { return digest == other.digest; }
};

// Reads it from a file. Throws std::runtime_error when its integrity check fails.
inline Content read_content(const std::string& file) {
    notes_sim::Database database(file, notes_sim::Connection::Mode::kReadOnly);
    Content content{::domino_sim::readState(database, true)};
    if (content.integrity != "ok" || content.digest.empty())
        throw std::runtime_error(file + ": " + content.integrity);
    return content;
}

// In which respect a file's content differs, or why it cannot be read; empty when it does not.
inline std::string difference(const Content& expected, const std::string& file) try {
    Content found = read_content(file);
    return expected == found               ? ""
           : expected.notes != found.notes ? "other notes"
           : expected.stubs != found.stubs ? "other stubs"
                                           : "other unread marks";
} catch (const std::exception& failure) {
    return failure.what();
}

struct Commit {
    std::int64_t time = 0; // hundredths of a second since 1970
    Content content;       // after it
    // No log leads here from the state before: another instance, or a restored copy.
    bool jump = true;
    // But the newest copy and the logs do: a recovery to their end put it in place.
    bool replayed = false;

    bool is_of_instance(const Commit& other) const {
        return content.header.dbiid == other.content.header.dbiid;
    }
};

// A database in a set of the store: commits of its history that its copy may be at.
struct Saved {
    std::string set;
    std::int64_t ended = 0; // of the set, seconds since 1970
    std::size_t at_least = 0;
    std::size_t at_most = 0;
    ManifestItem item = {};

    bool is_exact() const { return at_least == at_most; }
};

struct ModelDatabase {
    bool logged = true;
    bool live = true;            // on the server, and whole
    std::vector<Commit> commits; // the first is the creation
    std::vector<Saved> saved;
    std::size_t commits_before = 0; // the last commit before a backup that is under way

    const Content& present() const { return commits.back().content; }
    const Content& content_of(const Saved& copy) const { return commits[copy.at_most].content; }
    // Whether a newest copy at this commit and the logs do not lead to what is there now.
    bool left_behind(std::size_t copy) const {
        for (std::size_t i = commits.size() - 1; i > copy; --i)
            if (commits[i].jump || commits[i].replayed)
                return !commits[i].replayed;
        return false;
    }
    // The last commit at or before a moment in seconds since 1970; the last of all without one.
    const Commit& commit_at(std::optional<std::int64_t> moment) const {
        std::size_t last = commits.size() - 1;
        while (moment && last > 0 && commits[last].time > *moment * hundredths)
            --last;
        return commits[last];
    }
    // The newest set that ended before the moment.
    const Saved* newest_before(std::optional<std::int64_t> moment) const {
        const Saved* newest = nullptr;
        for (const Saved& copy : saved)
            if (!moment || copy.ended < *moment)
                newest = &copy;
        return newest;
    }
};

// The history of one server: what users did, and what each set has of it.
class History {
  public:
    // `folder` is an empty one, in which all but the store lies.
    History(std::string in, std::string of_store, std::uint64_t seed)
        : folder(std::move(in)), store(std::move(of_store)), m_content(seed) {
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

    void create(const std::string& name, std::uint64_t seed, bool logged = true) {
        ::domino_sim::createDatabase(*m_server, path_of(name), logged, name, 5, seed);
        adopt(name, logged && !notes_sim::isTemplate(path_of(name)));
    }

    void commit(const std::string& name) {
        std::vector<Commit>& commits = database(name).commits;
        std::string path = path_of(name);
        Commit next;
        {
            notes_sim::UseMark mark(*m_server, path);
            notes_sim::Database file(path, notes_sim::Connection::Mode::kReadWrite);
            next.time = commitChanges(*m_server, file, changes_for(commits.back().content)).time;
        }
        next.content = read_content(path);
        next.jump = !next.is_of_instance(commits.back());
        commits.push_back(std::move(next));
    }

    // Looks at what lies in a database's place: what no commit of this history left is a jump.
    // Returns whether that is what was there.
    bool observe(const std::string& name) {
        std::vector<Commit>& commits = database(name).commits;
        Commit found = {notes_sim::nowInHundredths(), read_content(path_of(name))};
        bool known = !commits.empty() && commits.back().content == found.content &&
                     commits.back().is_of_instance(found);
        if (!known)
            commits.push_back(std::move(found));
        return known;
    }

    // What lies there was put there by a restore: a jump, although it may be what was there before.
    void note_restored(const std::string& name) {
        if (observe(name))
            database(name).commits.push_back(
                {notes_sim::nowInHundredths(), database(name).present()});
    }

    // Which gives it a new DBIID.
    void compact(const std::string& name) {
        simulate({"compact", name});
        (void)observe(name);
    }

    ModelDatabase& database(const std::string& name) { return databases.at(name); }
    std::vector<std::string> live() const {
        std::vector<std::string> names;
        for (const auto& [name, database] : databases)
            if (database.live)
                names.push_back(name);
        return names;
    }

    std::vector<std::string> saved() const {
        std::vector<std::string> names;
        for (const auto& [name, database] : databases)
            if (!database.saved.empty())
                names.push_back(name);
        return names;
    }

    const notes_sim::Server& server() const { return *m_server; }
    std::string server_folder() const { return folder + "/server"; }
    std::string data() const { return server_folder() + "/data/"; }
    std::string path_of(const std::string& name) const { return data() + name; }
    std::string temporary() const { return folder + "/tmp"; }
    // Of the index of databases in the store.
    std::string index_file() const { return store + "/runtime/qrtln_DBIID.ini"; }

    // Words of qrtln, with the program and those that name server and store.
    std::vector<std::string> command(const std::vector<std::string>& words) const {
        std::vector<std::string> all = {QRTLN_EXECUTABLE};
        all.insert(all.end(), words.begin(), words.end());
        all.insert(all.end(), {"--store", store});
        static const std::set<std::string> of_the_store = {"verify", "forget", "convert"};
        if (!of_the_store.contains(words.front()))
            all.insert(all.end(),
                       {"--notes-ini", server_folder() + "/notes.ini", "--tmp-dir", temporary()});
        return all;
    }

    // Runs domino-sim, its first word followed by the server's folder. Throws when it fails.
    void simulate(std::vector<std::string> words) const {
        words.insert(words.begin(), QRTLN_DOMINO_SIM);
        words.insert(words.begin() + 2, server_folder());
        if (Run done = run_program(words); done.exit_code != 0)
            throw std::runtime_error("domino-sim " + words[1] + ": " + done.errors);
    }

    const std::string folder;
    const std::string store;
    std::map<std::string, ModelDatabase> databases;
    bool logs_lost = false; // and no new log begun
    bool log_was_lost = false;

  private:
    void adopt(const std::string& name, bool logged) {
        databases[name].logged = logged;
        observe(name);
    }

    // What a user does in one transaction.
    std::vector<notes_sim::NoteChange> changes_for(const Content& content) {
        constexpr std::size_t largest_body = 6000; // several notes fit into an extent
        using notes_sim::ChangeKind;
        std::vector<notes_sim::NoteChange> changes;
        std::set<notes_sim::NoteId> used;
        for (std::uint64_t left = 1 + m_content.below(3); left > 0; --left) {
            notes_sim::NoteChange change = m_content.newNote();
            change.note.body.resize(std::min(change.note.body.size(), largest_body));
            if (std::uint64_t dice = m_content.below(10); dice >= 4 && !content.notes.empty()) {
                auto note = content.notes.begin();
                std::advance(note,
                             static_cast<std::ptrdiff_t>(m_content.below(content.notes.size())));
                if (!used.insert(note->first).second)
                    continue;
                if (dice >= 7) {
                    change.kind = dice == 7   ? ChangeKind::kMarkUnread
                                  : dice == 8 ? ChangeKind::kMarkRead
                                              : ChangeKind::kDelete;
                    change.note = {};
                    change.note.subject = dice == 9 ? "" : "CN=Anna/O=Sample";
                }
                change.note.id = note->first;
            }
            changes.push_back(std::move(change));
        }
        return changes;
    }

    ::domino_sim::ContentGenerator m_content;
    std::optional<notes_sim::Server> m_server;
};

} // namespace qrtln::torture
