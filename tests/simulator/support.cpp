#include "tests/simulator/support.h"

#include <algorithm>
#include <fstream>
#include <sqlite3.h>

namespace simulator_tests {

nlohmann::json show(const std::string& place) {
    return nlohmann::json::parse(dominoSim("show --json " + place));
}

TestServer::TestServer(const std::string& initOptions) {
    command("init", "--databases 5 " + initOptions);
    EXPECT_EQ(start(), 0);
}

TestServer::~TestServer() {
    NotesTerm();
    NotesSimSetFaults("");
}

STATUS TestServer::start() const {
    std::string program = "test";
    std::string ini = "=" + root() + "/notes.ini";
    char* argv[] = {program.data(), ini.data(), nullptr};
    return NotesInitExtended(2, argv);
}

Workload::Workload(const TestServer& server, const std::string& database, int writers)
    : m_manifest(server.folder.file("manifest.json")),
      m_task("workload " + server.root() + " " + database + " --writers " +
             std::to_string(writers) + " --manifest " + m_manifest) {
    awaitCommit(); // the base
    awaitCommit();
}

void Workload::awaitCommit() {
    for (int tries = 0; tries < 100'000; ++tries) {
        if (const std::uintmax_t size = fs::file_size(m_manifest); size != m_seen) {
            m_seen = size;
            return;
        }
        usleep(200);
    }
    throw std::runtime_error("the workload does nothing");
}

void backUp(const TestServer& server, const std::string& database, const std::string& copy,
            const CopySteps& steps) {
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

std::string readFile(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void replace(const std::string& from, const std::string& to) {
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

void changeFile(const std::string& database, const std::string& sql) {
    sqlite3* connection = nullptr;
    EXPECT_EQ(sqlite3_open(database.c_str(), &connection), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(connection, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(connection);
}

} // namespace simulator_tests
