// A server as a folder: its notes.ini, its directories, and the lock that its processes share.
#pragma once

#include "notes_simulator/mood.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace notes_sim {

/// The transaction logging style. The numbers are those of TRANSLOG_Style and of the C API.
enum class LogStyle : int { kNone = -1, kCircular = 0, kArchive = 1, kLinear = 2 };

/// The variables of a notes.ini. Names compare without regard to case.
class NotesIni {
  public:
    /// Throws StatusError: kAccessDenied when the file may not be read, kInvalidDirectory when
    /// there is none.
    static NotesIni load(const std::filesystem::path& file);

    std::optional<std::string> get(const std::string& name) const;
    /// The number behind a variable; fallback when it is missing or not a number.
    std::uint64_t number(const std::string& name, std::uint64_t fallback) const;

  private:
    std::map<std::string, std::string> m_variables;
};

/// One server folder. A plain value: it holds no open file.
struct Server {
    NotesIni ini;
    std::filesystem::path root;      ///< the server folder, absolute
    std::filesystem::path data;      ///< the data directory, absolute, without a trailing "/"
    std::filesystem::path canonical; ///< the data directory with symbolic links resolved
    std::filesystem::path logs;      ///< the folder of the log extents
    std::filesystem::path state;     ///< what the server's processes share
    LogStyle style = LogStyle::kNone;
    std::uint64_t extentSize = 0;  ///< bytes in a log extent
    std::uint32_t ringExtents = 0; ///< extents of a circular log
    Moods moods;                   ///< where it is stricter than the simulator is by default
    std::optional<int> zone;       ///< of its texts of times, minutes east of GMT; else local
    std::uint32_t firstLog = 1;    ///< the number that the first extent of a log is called by

    /// What the extent of this number, 1 for the first of a log, is called by: numbers may wrap.
    std::uint32_t logNumber(std::uint32_t extent) const { return firstLog + extent - 1; }
    /// The other way round.
    std::uint32_t extentOf(std::uint32_t logNumber) const { return logNumber - firstLog + 1; }

    /// The name of the user that the server's own programs run as, in native text.
    std::string userName() const;
    /// The absolute form of a path that may be relative to the data directory.
    std::filesystem::path resolve(const std::filesystem::path& path) const;
    /// Whether an absolute path lies in the data directory, by its name or behind symbolic links.
    bool contains(const std::filesystem::path& path) const;
    /// The name of a database as the server's state knows it: its path below the data directory,
    /// or its absolute path when it lies elsewhere. Symbolic links are resolved.
    std::string nameOf(const std::filesystem::path& path) const;
    /// A file name that stands for one database in the state folder.
    std::string keyOf(const std::filesystem::path& path) const;
};

/// Whether a key was cut short, so that it no longer tells the path of its database.
bool isShortenedKey(const std::string& key);

/// Reads the server that a notes.ini belongs to. Throws StatusError: kAccessDenied, or
/// kInvalidDirectory when the file, its Directory or the server's state folder is missing.
Server openServerByIni(const std::filesystem::path& iniFile);

/// Reads the server in a folder that `domino-sim init` made. Throws StatusError likewise.
Server openServerFolder(const std::filesystem::path& root);

/// The server folder above a file, if it lies in one.
std::optional<std::filesystem::path> findServerFolder(const std::filesystem::path& file);

/// Whether the file exists but grants nobody, or not this process, the right to read it.
bool readingDenied(const std::filesystem::path& file);

/// Replaces a file so that a crash leaves the old or the new content whole.
void replaceFile(const std::filesystem::path& file, const std::string& content);

/// The exclusive lock on a server, held by whoever changes a database, the log or the state.
/// Waiters take turns: a second lock file serves as the gate, so that a process which takes the
/// lock again at once cannot starve another.
class ServerLock {
  public:
    explicit ServerLock(const Server& server);
    ~ServerLock();
    ServerLock(const ServerLock&) = delete;
    ServerLock& operator=(const ServerLock&) = delete;

  private:
    int m_fd = -1;
};

} // namespace notes_sim
