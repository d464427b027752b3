// A simulated server whose whole history is remembered: what each database held after every commit.
#pragma once

#include "notes_simulator/database.h"
#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/server.h"
#include "tests/torture/traced_run.h"

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qrtln::torture {

// What a database holds: digests of its notes and stubs, and its unread marks.
struct Content {
    std::map<notes_sim::NoteId, std::string> notes;
    std::map<notes_sim::NoteId, std::string> stubs;
    std::set<std::pair<std::string, notes_sim::NoteId>> unread;

    bool operator==(const Content&) const = default;
};

// Reads it from a file. Throws std::runtime_error when its integrity check fails.
Content read_content(const std::string& file);

// In which respect two contents differ; empty when they are equal.
std::string difference(const Content& expected, const Content& found);

struct Commit {
    std::int64_t time = 0; // hundredths of a second since 1970
    Content content;       // after it
    std::string dbiid;     // the instance that the database is after it, in hexadecimal
    // No log leads here from the state before: another instance, or a restored copy.
    bool jump = true;
    // But the newest copy and the logs do: a recovery to their end put it in place.
    bool replayed = false;
};

// A database in a set of the store: commits of its history that its copy may be at.
struct Saved {
    std::string set;
    std::int64_t ended = 0; // of the set, seconds since 1970
    std::size_t at_least = 0;
    std::size_t at_most = 0;
    std::string object = {};
};

struct ModelDatabase {
    bool logged = true;
    bool live = true;            // on the server, and whole
    std::vector<Commit> commits; // the first is the creation
    std::vector<Saved> saved;

    // Whether a newest copy at this commit and the logs do not lead to what is there now.
    bool left_behind(std::size_t copy) const;
    // The last commit at or before a moment in seconds since 1970; the last of all without one.
    std::size_t commit_at(std::optional<std::int64_t> moment) const;
    // The newest set that ended before the moment.
    const Saved* newest_before(std::optional<std::int64_t> moment) const;
    // What is wrong with a file that was recovered to the moment; empty when it is as it must be:
    // at the last commit, or, not logged, as it was in that set. Throws like read_content().
    std::string wrong_with(const std::string& file, std::optional<std::int64_t> moment) const;
};

// Where the programs are.
struct Programs {
    std::string qrtln;
    std::string domino_sim;
    std::string simulator; // the folder of libnotes.so
};

// The history of one server: what users did, and what each set has of it.
class History {
  public:
    // `folder` is an empty one; everything lies in it, but for the store when it has a place.
    History(const Programs& programs, const std::string& folder, std::uint64_t seed,
            const std::string& store = {});

    // A single step each. Throws std::runtime_error when the backup fails.
    void create(const std::string& name, std::uint64_t seed, bool logged = true);
    void commit(const std::string& name);
    // Looks at what lies in a database's place: what no commit of this history left is a jump.
    // Returns whether that is what was there.
    bool observe(const std::string& name);
    // What lies there was put there by a restore: a jump, although it may be what was there before.
    void note_restored(const std::string& name);
    void compact(const std::string& name) const; // which gives it a new DBIID
    void back_up(bool full);
    void forget_sets(); // the store is lost

    const std::map<std::string, ModelDatabase>& databases() const { return m_databases; }
    ModelDatabase& database(const std::string& name) { return m_databases.at(name); }
    const notes_sim::Server& server() const { return *m_server; }
    std::string server_folder() const { return m_folder + "/server"; }
    std::string path_of(const std::string& name) const { return server_folder() + "/data/" + name; }
    std::string store() const { return m_store; }
    // The folder that has the store and nothing else.
    std::string disk() const { return m_folder + "/disk"; }
    std::string temporary() const { return m_folder + "/tmp"; }
    std::string scratch() const { return m_folder; }
    const Environment& environment() const { return m_environment; }
    Environment& environment() { return m_environment; }

    // Words of qrtln, with the program and those that name server and store.
    std::vector<std::string> command(const std::vector<std::string>& words) const;
    // Runs it.
    Run qrtln(const std::vector<std::string>& words, bool traced = false, Kill kill = {},
              CallObserver* observer = nullptr) const;
    void simulate(const std::vector<std::string>& words) const; // runs domino-sim

    // The server, the store and the model as they are now, under a name; brought back however often
    // they are changed.
    void keep(const std::string& name);
    void bring_back(const std::string& name);
    std::string kept(const std::string& name) const { return m_folder + "/kept-" + name; }

  private:
    void make_server(std::uint64_t seed);
    void adopt(const std::string& name, bool logged);
    std::vector<notes_sim::NoteChange> changes_for(const Content& content);
    void remember_set(const std::string& output,
                      const std::map<std::string, std::size_t>& commits_before);

    Programs m_programs;
    std::string m_folder;
    std::string m_store;
    Environment m_environment;
    ::domino_sim::ContentGenerator m_content;
    std::optional<notes_sim::Server> m_server;
    std::map<std::string, ModelDatabase> m_databases;
    std::map<std::string, std::map<std::string, ModelDatabase>> m_kept; // by name
};

} // namespace qrtln::torture
