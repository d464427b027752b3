// What must hold after a backup was killed, and after the next ones.
#pragma once

#include "tests/torture/server_history.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace qrtln::torture {

// The rules, by the names that are printed.
namespace rule {
inline constexpr const char* index = "index";         // byte for byte the old or the new one
inline constexpr const char* extents = "extents";     // none marked that no set has whole
inline constexpr const char* verify = "verify";       // the store verifies
inline constexpr const char* next_run = "next run";   // succeeds without a hand
inline constexpr const char* leftovers = "leftovers"; // nothing of the killed run is left
inline constexpr const char* databases = "databases"; // each is recoverable to its last commit
} // namespace rule

// The index of databases of a store, empty when there is none.
std::string index_of(const std::string& store);

// The state that a killed backup began with.
struct Start {
    std::string kept; // its name in the history
    bool full = false;
    std::set<std::string> indexes;                // that a run which is not killed ever leaves
    std::map<std::uint32_t, std::string> waiting; // extents to be archived, with their digests
};

// The extents of a server that wait to be archived, with the SHA-256 of their bytes.
std::map<std::uint32_t, std::string> waiting_extents(const notes_sim::Server& server);

class CrashJudge {
  public:
    explicit CrashJudge(History& history) : m_history(history) {}

    // Of all that follows, for messages.
    void begin(const Start& start, std::string doing);
    void also(const std::string& doing) { m_doing += ", " + doing; }
    // Another index is the new one: another run came to its end.
    void allow_index(const std::string& index) { m_indexes.insert(index); }
    // What the killed run left.
    void judge_remains();
    // Users go on, the same command is given again, and after a full backup an incremental one;
    // then everything is recovered beside the live databases.
    void judge_next_runs();

    void violated(const std::string& rule, const std::string& what);
    const std::map<std::string, int>& violations() const { return m_violations; } // by rule

  private:
    void wait_for_the_end();
    void judge_index();
    void judge_extents();
    bool is_stored(std::uint32_t extent, const std::string& digest) const;
    void judge_store();
    void judge_leftovers();
    void judge_databases();

    History& m_history;
    const Start* m_start = nullptr;
    std::set<std::string> m_indexes;
    std::string m_doing;
    std::map<std::string, int> m_violations;
};

} // namespace qrtln::torture
