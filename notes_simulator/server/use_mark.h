// Who may use a database: marks of the processes that have it open, and of databases that were
// taken offline. Both lie in the state folder.
#pragma once

#include "notes_simulator/server/server.h"
#include "notes_simulator/server/server_lock.h"

#include <filesystem>
#include <string>

namespace notes_sim {

/// The mark that a process has a database open. It goes away with the object, or the process.
class UseMark {
  public:
    /// Takes the server's lock for a moment. Throws StatusError(kDatabaseOffline).
    UseMark(const Server& server, const std::filesystem::path& file);
    /// The same for a caller that holds the lock.
    UseMark(const Server& server, const std::filesystem::path& file, const ServerLock& lock);
    ~UseMark();
    UseMark(const UseMark&) = delete;
    UseMark& operator=(const UseMark&) = delete;

    /// Whether a process, this one included, has the database open. The answer holds as long as
    /// the caller's lock.
    static bool inUse(const Server& server, const std::filesystem::path& file,
                      const ServerLock& lock);

  private:
    void take(const Server& server, const std::filesystem::path& file);

    int m_fd = -1;
};

/// What a process does to a database for a while, as other processes see it.
enum class Activity { kBackup, kCompaction };

/// The mark of it. It goes away with the object, or the process; several may be there at once.
class ActivityMark {
  public:
    /// REQUIRES: the caller holds the server's lock.
    ActivityMark(const Server& server, const std::string& key, Activity activity);
    ~ActivityMark();
    ActivityMark(const ActivityMark&) = delete;
    ActivityMark& operator=(const ActivityMark&) = delete;

    /// Whether one is there, of this process or another. REQUIRES: as above.
    static bool isThere(const Server& server, const std::string& key, Activity activity);

  private:
    int m_fd = -1;
};

/// The file that says that a database is offline; it exists exactly as long as that is so.
std::filesystem::path offlineFile(const Server& server, const std::filesystem::path& file);

/// Whether the database is offline. Only under the server's lock does the answer last.
bool isOffline(const Server& server, const std::filesystem::path& file);

/// Throws StatusError(kDatabaseOffline) when the database is offline.
void requireOnline(const Server& server, const std::filesystem::path& file);

} // namespace notes_sim
