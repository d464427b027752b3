// A server in a temporary folder, runs of domino-sim, and a backup as a client makes it.
#pragma once

#include "notes_simulator/notes_simulator.h"
#include "tests/support/temporary_folder.h"

#include <nlohmann/json.hpp>

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace simulator_tests {

/// How a program ended and what it printed on both outputs.
struct RunResult {
    int exitCode = -1; ///< 1000 + signal when it was killed
    std::string output;
};

RunResult run(const std::vector<std::string>& command);
/// Runs domino-sim, by default with the expectation that it succeeds.
RunResult dominoSim(std::vector<std::string> arguments, int expectedExit = 0);
/// The JSON that domino-sim prints.
nlohmann::json dominoSimJson(const std::vector<std::string>& arguments);

/// A folder that goes away with the object.
class TemporaryFolder : public ::TemporaryFolder {
  public:
    std::filesystem::path operator/(const std::string& name) const { return file(name); }
};

/// A server made by domino-sim, and the runtime of this process started on it.
class TestServer {
  public:
    explicit TestServer(std::vector<std::string> initArguments = {});
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    std::string root() const { return (folder / "server").string(); }
    std::filesystem::path data(const std::string& name) const {
        return folder / "server" / "data" / name;
    }
    STATUS start() const;

    TemporaryFolder folder;
};

/// A workload that runs until the object goes away.
class Workload {
  public:
    Workload(const TestServer& server, const std::string& database, int writers = 1);
    ~Workload();
    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    std::string manifest() const { return m_manifest; }
    /// Waits until something more has been committed.
    void awaitCommit();
    void stop();
    /// Kills it and its writers at once.
    void kill();

  private:
    std::string m_manifest;
    std::uintmax_t m_seen = 0;
    pid_t m_pid = -1;
};

/// Another process that has a database open.
class Holder {
  public:
    /// Returns once the database is open. With seconds it ends by itself.
    Holder(const TestServer& server, const std::string& database, const std::string& seconds = "0");
    ~Holder();
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

  private:
    pid_t m_pid = -1;
};

/// An open database that closes itself.
class OpenDb {
  public:
    explicit OpenDb(const std::string& path);
    ~OpenDb();
    OpenDb(const OpenDb&) = delete;
    OpenDb& operator=(const OpenDb&) = delete;
    DBHANDLE handle = 0;
};

/// A database and a backup of it that was begun; `status` is the answer to the begin.
class OpenBackup {
  public:
    explicit OpenBackup(const std::string& path) : database(path) { start(); }
    /// Begins once more, as after a failed begin.
    STATUS start() {
        return status = NSFBackupStart(database.handle, 0, &context, &size[0], &size[1]);
    }
    /// Ends it with an option of NSFBackupEnd: 0 done, 1 given up.
    STATUS end(DWORD option) const { return NSFBackupEnd(database.handle, context, option); }

    OpenDb database;
    DHANDLE context = 0;
    DWORD size[2] = {};
    STATUS status = 0;
};

/// Whether a database is logged, and its DBIID.
std::pair<BOOL, UNIVERSALNOTEID> logInfo(const std::string& database);

/// The ids of a table in its order.
std::vector<NOTEID> idsOf(DHANDLE table);

/// How a test copies a database.
struct CopySteps {
    bool applyChanges = true;
    std::size_t chunk = 32768;     ///< of the copy
    DWORD infoBuffer = 32768;      ///< of the change information
    std::size_t chunksPerMark = 0; ///< after how many the mark is set; 0: never
    std::function<void()> between; ///< called after each chunk of the copy
};

/// Makes a backup copy of a database; every call is expected to succeed.
void backUp(const std::string& database, const std::filesystem::path& source,
            const std::filesystem::path& copy, const CopySteps& steps);

/// Runs the body in a child process that then dies by SIGKILL. Whether the body returned true.
bool inKilledProcess(const std::function<bool()>& body);

std::string readFile(const std::filesystem::path& file);

} // namespace simulator_tests
