// What the commands of domino-sim share.
#pragma once

#include "notes_simulator/engine/database.h"
#include "notes_simulator/server/server.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace domino_sim {

/// Something that a command found is not as it must be; domino-sim exits with 4.
class CheckFailed : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Opens a server folder for this process; databases that are opened later are recorded for it.
notes_sim::Server useServer(const std::string& folder);

/// The absolute path of a database that a user named. Throws StatusError when it is none.
std::filesystem::path requireDatabase(const notes_sim::Server& server, const std::string& name);

/// The server's databases, by any extension, in the order of their names.
std::vector<std::filesystem::path> allDatabases(const notes_sim::Server& server);

/// Writes a database into a server. When the log has its changes it is known to the log from the
/// start. Throws StatusError when the file exists.
void createDatabase(const notes_sim::Server& server, const std::filesystem::path& file, bool logged,
                    const std::string& title, int notes, std::uint64_t seed);

/// The command line of the program. A subcommand is run by its callback while it is parsed.
std::unique_ptr<CLI::App> commandTree();

/// Each adds a subcommand to the program, to be run by its callback.
void addInitCommands(CLI::App& app);
void addEditCommands(CLI::App& app);
void addShowCommands(CLI::App& app);
void addWorkloadCommand(CLI::App& app);
void addCheckCommand(CLI::App& app);
void addOfflineCommands(CLI::App& app);
void addHarmCommands(CLI::App& app);

} // namespace domino_sim
