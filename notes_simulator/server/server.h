// A server as a folder: its directories, and what its notes.ini says of it.
#pragma once

#include "notes_simulator/server/mood.h"
#include "notes_simulator/server/notes_ini.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace notes_sim {

/// The transaction logging style. The numbers are those of TRANSLOG_Style and of the C API.
enum class LogStyle : int { kNone = -1, kCircular = 0, kArchive = 1, kLinear = 2 };

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

} // namespace notes_sim
