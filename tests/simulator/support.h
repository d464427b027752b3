// A server in a temporary folder, and a backup as a client makes it.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include "notes_simulator/notes_simulator.h"
#include "tests/support/domino_sim.h"
#include "tests/support/files.h"
#include "tests/support/temporary_folder.h"

namespace simulator_tests {

namespace fs = std::filesystem;

// Extents small enough that two changes of kBigChange fill one.
constexpr const char* kSmallExtents = "--extent-size 65536";
const std::string kBigChange = "--text " + std::string(30000, 'x');

// What domino-sim shows of a database: a file, or a server and a name.
inline nlohmann::json show(const std::string& place) {
    return nlohmann::json::parse(dominoSim("show --json " + place));
}

// A server made by domino-sim, and the runtime of this process started on it.
class TestServer {
  public:
    explicit TestServer(const std::string& initOptions = "") {
        command("init", "--databases 5 " + initOptions);
        EXPECT_EQ(start(), 0);
    }
    ~TestServer() {
        NotesTerm();
        NotesSimSetFaults("");
    }
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    std::string root() const { return folder.file("server"); }
    std::string data(const std::string& name) const { return root() + "/data/" + name; }
    STATUS start() const {
        std::string program = "test";
        std::string ini = "=" + root() + "/notes.ini";
        char* argv[] = {program.data(), ini.data(), nullptr};
        return NotesInitExtended(2, argv);
    }

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
    Workload(const TestServer& server, const std::string& database, int writers = 1)
        : m_manifest(server.folder.file("manifest.json")),
          m_task("workload " + server.root() + " " + database + " --writers " +
                 std::to_string(writers) + " --manifest " + m_manifest) {
        awaitCommit(); // the base
        awaitCommit();
    }
    std::string manifest() const { return m_manifest; }
    // Waits until something more has been committed.
    void awaitCommit() {
        for (int tries = 0; tries < 100'000; ++tries) {
            if (const std::uintmax_t size = fs::file_size(m_manifest); size != m_seen) {
                m_seen = size;
                return;
            }
            usleep(200);
        }
        throw std::runtime_error("the workload does nothing");
    }

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
inline void backUp(const TestServer& server, const std::string& database, const std::string& copy,
                   const CopySteps& steps = {}) {
    constexpr std::uint64_t kChunk = 32768;
    OpenBackup backup(database);
    const DBHANDLE db = backup.database.handle;
    const DHANDLE context = backup.context;
    auto& [low, high] = backup.size;
    ASSERT_EQ(backup.status, 0);
    {
        std::ifstream in(server.data(database), std::ios::binary);
        std::ofstream out(copy, std::ios::binary | std::ios::trunc);
        const std::uint64_t size = static_cast<std::uint64_t>(high) << 32 | low;
        std::size_t chunks = 0;
        for (std::uint64_t at = 0; at < size;) {
            // Zeros stand for what is cut off meanwhile.
            std::string buffer(std::min(size - at, kChunk), '\0');
            in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
            in.clear();
            out << buffer;
            at += buffer.size();
            if (steps.chunksPerMark != 0 && ++chunks % steps.chunksPerMark == 0) {
                EXPECT_EQ(NSFBackupSetHighWaterMark(db, context, static_cast<DWORD>(at), 0), 0);
            }
            if (steps.between) {
                steps.between();
            }
        }
    }
    ASSERT_EQ(NSFBackupStop(db, context), 0);
    if (steps.applyChanges) {
        DHANDLE apply = 0;
        std::string path = copy;
        ASSERT_EQ(NSFBackupGetChangeInfoSize(db, context, 0, &low, &high), 0);
        ASSERT_EQ(NSFBackupStartApplyChangeInfo(&apply, path.data(), 0, low, high), 0);
        std::vector<BYTE> buffer(steps.infoBuffer);
        for (DWORD filled = 1; filled != 0;) {
            ASSERT_EQ(NSFBackupGetNextChangeInfo(db, context, 0, buffer.data(), steps.infoBuffer,
                                                 &filled),
                      0);
            ASSERT_EQ(NSFBackupApplyNextChangeInfo(apply, 0, buffer.data(), filled), 0);
        }
        ASSERT_EQ(NSFBackupEndApplyChangeInfo(apply, 0), 0);
    }
    ASSERT_EQ(backup.end(0), 0);
}

inline void replace(const std::string& from, const std::string& to) {
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

// Changes a database behind the server's back.
inline void changeFile(const std::string& database, const std::string& sql) {
    sqlite3* connection = nullptr;
    EXPECT_EQ(sqlite3_open(database.c_str(), &connection), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(connection);
}

} // namespace simulator_tests
