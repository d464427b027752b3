// Roll-forward recovery: replays what the log has of databases beyond what their files hold.
#pragma once

#include "notes_simulator/base/byte_codec.h"
#include "notes_simulator/base/status.h"
#include "notes_simulator/server/server.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace notes_sim {

/// What to recover, and how far.
struct RecoveryRequest {
    std::vector<std::filesystem::path> files; ///< absolute; an instance is known by its DBIID
    /// Asked for each extent that is needed, in order, whether or not it lies there; returns
    /// whether it can be read at that path. Called without the server's lock.
    std::function<bool(const Id16& logId, std::uint32_t number, const std::filesystem::path&)>
        provide;
    bool newInstance = false;          ///< give each database a new DBIID
    std::optional<std::int64_t> until; ///< hundredths of a second since 1970; none: to the end
};

/// A recovery failed because of one database, or of an extent that it needs.
class RecoveryError : public StatusError {
  public:
    RecoveryError(const StatusError& cause, std::size_t database)
        : StatusError(cause), m_database(database) {}
    /// Its place among RecoveryRequest::files, from 0.
    std::size_t database() const { return m_database; }

  private:
    std::size_t m_database;
};

/// Recovers the databases: reads the extents once, for all of them, and then writes each database
/// in a transaction of its own. Returns the places in the list, from 0, of those that this log does
/// not know: they stay as they are. Throws RecoveryError, with nothing changed while extents are
/// looked for and read; when writing a database fails, those before it are recovered and the same
/// request goes on where this one ended. Throws StatusError(kNoTransactionLogging).
std::vector<std::size_t> recoverDatabases(const Server& server, const RecoveryRequest& request);

} // namespace notes_sim
