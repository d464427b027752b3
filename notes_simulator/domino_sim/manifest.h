// The manifest of a workload: every commit, in JSON lines.
//
//   {"db":"mail/user1.nsf","base":12,"dbiid":"...","notes":{"2294":"<digest>"},"stubs":{...}}
//   {"db":"mail/user1.nsf","commit":13,"record":7,"time":...,"ops":[["put",2294,"<digest>"],
//    ["delete",2298,"<digest>"]]}
//
// A commit is written down under the server's lock just before it is made: after a kill the last
// line of a database may be one that never happened. Its number is given to the next commit then,
// so that of two lines with the same number the later one counts.
#pragma once

#include "notes_simulator/domino_sim/database_state.h"
#include "notes_simulator/engine/transaction.h"

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace domino_sim {

/// Appends lines to a manifest; several processes may append to the same one.
class ManifestWriter {
  public:
    explicit ManifestWriter(const std::filesystem::path& file);
    ~ManifestWriter();
    ManifestWriter(const ManifestWriter&) = delete;
    ManifestWriter& operator=(const ManifestWriter&) = delete;

    void base(const std::string& database, const DatabaseState& state);
    void commit(const std::string& database, const notes_sim::Commit& commit);

  private:
    void line(const std::string& text);

    int m_fd = -1;
};

/// What a database held after one commit.
struct ManifestState {
    std::map<notes_sim::NoteId, std::string> notes;
    std::map<notes_sim::NoteId, std::string> stubs;
    std::uint64_t firstCommit = 0; ///< the base
    std::uint64_t lastCommit = 0;  ///< of all that the manifest has of this database
};

/// The content of a database after a commit. Throws StatusError when the manifest is damaged or
/// does not have the database or the commit.
ManifestState stateAfter(const std::filesystem::path& manifest, const std::string& database,
                         std::uint64_t commit);

/// The number of a database's last commit at or before a time, in hundredths of a second since
/// 1970; the base when all commits are later. Throws like stateAfter.
std::uint64_t lastCommitAt(const std::filesystem::path& manifest, const std::string& database,
                           std::int64_t time);

} // namespace domino_sim
