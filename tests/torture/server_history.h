// A simulated server whose whole history is remembered: what each database held after every commit.
#pragma once

#include "notes_simulator/database.h"
#include "notes_simulator/domino_sim/content.h"
#include "notes_simulator/server.h"
#include "tests/torture/traced_run.h"

#include <cstdint>
#include <map>
#include <optional>
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
// In which respect a file's content differs, or why it cannot be read; empty when it does not.
std::string difference(const Content& expected, const std::string& file);

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
    bool left_behind(std::size_t copy) const;
    // The last commit at or before a moment in seconds since 1970; the last of all without one.
    const Commit& commit_at(std::optional<std::int64_t> moment) const;
    // The newest set that ended before the moment.
    const Saved* newest_before(std::optional<std::int64_t> moment) const;
};

// The history of one server: what users did, and what each set has of it.
class History {
  public:
    // `folder` is an empty one, in which all but the store lies.
    History(std::string folder, std::string store, std::uint64_t seed);

    void create(const std::string& name, std::uint64_t seed, bool logged = true);
    void commit(const std::string& name);
    // Looks at what lies in a database's place: what no commit of this history left is a jump.
    // Returns whether that is what was there.
    bool observe(const std::string& name);
    // What lies there was put there by a restore: a jump, although it may be what was there before.
    void note_restored(const std::string& name);
    void compact(const std::string& name); // which gives it a new DBIID

    ModelDatabase& database(const std::string& name) { return databases.at(name); }
    std::vector<std::string> live() const;
    std::vector<std::string> saved() const;
    const notes_sim::Server& server() const { return *m_server; }
    std::string server_folder() const { return folder + "/server"; }
    std::string data() const { return server_folder() + "/data/"; }
    std::string path_of(const std::string& name) const { return data() + name; }
    std::string temporary() const { return folder + "/tmp"; }
    // Of the index of databases in the store.
    std::string index_file() const { return store + "/runtime/qrtln_DBIID.ini"; }

    // Words of qrtln, with the program and those that name server and store.
    std::vector<std::string> command(const std::vector<std::string>& words) const;
    // Runs domino-sim, its first word followed by the server's folder. Throws when it fails.
    void simulate(std::vector<std::string> words) const;

    const std::string folder;
    const std::string store;
    Environment environment;
    std::map<std::string, ModelDatabase> databases;

  private:
    void adopt(const std::string& name, bool logged);
    std::vector<notes_sim::NoteChange> changes_for(const Content& content);

    ::domino_sim::ContentGenerator m_content;
    std::optional<notes_sim::Server> m_server;
};

} // namespace qrtln::torture
