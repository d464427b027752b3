// A server in a temporary folder, runs of domino-sim, and a backup as a client makes it.
#pragma once

#include "notes_simulator/notes_simulator.h"

#include <nlohmann/json.hpp>

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <string>
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
class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
    const std::filesystem::path& path() const { return m_path; }

  private:
    std::filesystem::path m_path;
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

/// How a test copies a database.
struct CopySteps {
    bool applyChanges = true;
    std::size_t chunk = 32768;     ///< of the copy
    DWORD infoBuffer = 32768;      ///< of the change information
    std::function<void()> between; ///< called after each chunk of the copy
};

/// Makes a backup copy of a database; every call is expected to succeed.
void backUp(const std::string& database, const std::filesystem::path& source,
            const std::filesystem::path& copy, const CopySteps& steps);

/// Runs the body in a child process that then dies by SIGKILL. Whether the body returned true.
bool inKilledProcess(const std::function<bool()>& body);

std::string readFile(const std::filesystem::path& file);

} // namespace simulator_tests
