// What became of each database of a recovery, and how the module tells it.
#pragma once

#include "client/module/told.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qrtln {

enum class RecoveryOutcome {
    recovered,    // rolled forward, and in its place
    only_its_set, // in its place as it is in its set
    uncertain,    // in its place, perhaps only as it is in its set
    in_place,     // an earlier run of the same recovery put it in its place
    waiting,      // not in its place: the restored copy waits
    failed,
};

const char* outcome_name(RecoveryOutcome outcome);

struct DatabaseRecovery {
    std::string path;   // of the original
    std::string target; // where it lies, or is to lie
    std::string set;
    std::int64_t set_ended = 0; // seconds since 1970
    RecoveryOutcome outcome = RecoveryOutcome::failed;
    std::string reason;          // why not recovered, or not for sure
    bool rolled_forward = false; // with the logs, in whichever outcome
    bool same_instance = false;  // as the live database that was there
    std::int64_t same_until = 0; // known to have been the live one until then, seconds since 1970

    // Whether a log could have done more, or the database is not in its place.
    bool falls_short() const;
};

// What the module tells of the databases, line by line.
class ToldOutcomes {
  public:
    struct Told {
        RecoveryOutcome outcome = RecoveryOutcome::failed;
        std::string reason;
    };

    explicit ToldOutcomes(const std::vector<std::string>& targets) {
        for (const std::string& target : targets)
            m_told.try_emplace(target);
    }
    // A line of its protocol.
    void read(std::string_view line);
    // A line of its trace, which has the server's failures.
    void read_trace(const std::string& line);
    // Nothing when the module told nothing of it.
    std::optional<Told> of(const std::string& target) const { return m_told.at(target); }
    const std::string& missing_log() const { return m_missing_log; }

  private:
    std::map<std::string, std::optional<Told>> m_told;
    std::string m_missing_log;
    ServerStatus m_status; // the last since a database was told of
};

} // namespace qrtln
