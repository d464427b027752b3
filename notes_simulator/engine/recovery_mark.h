// Marks of recoveries that are being written into databases: a killed one leaves its mark beside a
// rollback journal, and the mark tells whether the file is still the one that the journal is of.
#pragma once

#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"

#include <filesystem>

namespace notes_sim {

/// The mark that a recovery is being written into a database, from before its transaction begins
/// until after it has ended. Belongs under the lock.
class RecoveryMark {
  public:
    /// Throws StatusError.
    RecoveryMark(const Server& server, const std::filesystem::path& file, const ServerLock& lock);
    /// Leaves the mark while there is a journal that could not be used up.
    ~RecoveryMark();
    RecoveryMark(const RecoveryMark&) = delete;
    RecoveryMark& operator=(const RecoveryMark&) = delete;

  private:
    std::filesystem::path m_mark;
    std::filesystem::path m_journal;
};

/// Rolls back what a killed recovery left half written in a database, offline or not. When another
/// file lies in its place by now, the journal is removed instead. Does nothing where none was
/// killed. Throws StatusError.
void settleInterruptedRecovery(const Server& server, const std::filesystem::path& file,
                               const ServerLock& lock);

/// The same for every database with a mark. Never throws because of a single database.
void settleInterruptedRecoveries(const Server& server, const ServerLock& lock);

} // namespace notes_sim
