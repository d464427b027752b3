// A server in a temporary folder, and a backup as a client makes it.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "notes_simulator/notes_simulator.h"
#include "tests/simulator/domino_sim.h"
#include "tests/support/temporary_folder.h"

namespace simulator_tests {

namespace fs = std::filesystem;

// Extents small enough that two changes of kBigChange fill one.
constexpr const char* kSmallExtents = "--extent-size 65536";
const std::string kBigChange = "--text " + std::string(30000, 'x');

// What domino-sim shows of a database: a file, or a server and a name.
nlohmann::json show(const std::string& place);

// A server made by domino-sim, and the runtime of this process started on it.
class TestServer {
  public:
    explicit TestServer(const std::string& initOptions = "");
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    std::string root() const { return folder.file("server"); }
    std::string data(const std::string& name) const { return root() + "/data/" + name; }
    STATUS start() const;

    // Runs a command of domino-sim on this server.
    std::string command(const std::string& name, const std::string& rest,
                        int expectedExit = 0) const {
        return dominoSim(name + " " + root() + " " + rest, expectedExit);
    }
    nlohmann::json show(const std::string& name) const {
        return simulator_tests::show(root() + " " + name);
    }

    TemporaryFolder folder;
};

// A workload that runs until the object goes away.
class Workload {
  public:
    Workload(const TestServer& server, const std::string& database, int writers = 1);
    std::string manifest() const { return m_manifest; }
    // Waits until something more has been committed.
    void awaitCommit();

  private:
    std::string m_manifest;
    std::uintmax_t m_seen = 0;
    ServerTask m_task;
};

// An open database that closes itself.
class OpenDb {
  public:
    explicit OpenDb(const std::string& path) {
        EXPECT_EQ(NSFDbOpen(path.c_str(), &handle), 0) << path;
    }
    ~OpenDb() { EXPECT_EQ(NSFDbClose(handle), 0); }
    OpenDb(const OpenDb&) = delete;
    OpenDb& operator=(const OpenDb&) = delete;
    DBHANDLE handle = 0;
};

// A database and a backup of it that was begun; `status` is the answer to the begin.
class OpenBackup {
  public:
    explicit OpenBackup(const std::string& path) : database(path) { start(); }
    // Begins once more, as after a failed begin.
    STATUS start() {
        return status = NSFBackupStart(database.handle, 0, &context, &size[0], &size[1]);
    }
    // Ends it with an option of NSFBackupEnd: 0 done, 1 given up.
    STATUS end(DWORD option) const { return NSFBackupEnd(database.handle, context, option); }

    OpenDb database;
    DHANDLE context = 0;
    DWORD size[2] = {};
    STATUS status = 0;
};

// How a test copies a database.
struct CopySteps {
    bool applyChanges = true;
    DWORD infoBuffer = 32768;      // of the change information
    std::size_t chunksPerMark = 0; // after how many the mark is set; 0: never
    std::function<void()> between; // called after each chunk of the copy
};

// Makes a backup copy of a database of the server; every call is expected to succeed.
void backUp(const TestServer& server, const std::string& database, const std::string& copy,
            const CopySteps& steps = {});

std::string readFile(const std::string& file);
void replace(const std::string& from, const std::string& to);

// Changes a database behind the server's back.
void changeFile(const std::string& database, const std::string& sql);

} // namespace simulator_tests
