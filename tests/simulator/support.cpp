#include "support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace simulator_tests {

namespace {

pid_t spawn(const std::vector<std::string>& command, const std::string& outputFile) {
    const pid_t pid = ::fork();
    if (pid != 0) {
        return pid;
    }
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM); // a test that dies leaves nothing running
    const int fd = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, 1);
    ::dup2(fd, 2);
    std::vector<char*> argv;
    for (const std::string& argument : command) {
        argv.push_back(::strdup(argument.c_str()));
    }
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    std::_Exit(127);
}

int await(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

} // namespace

RunResult run(const std::vector<std::string>& command) {
    const TemporaryFolder folder;
    const fs::path output = folder / "output";
    RunResult result;
    result.exitCode = await(spawn(command, output.string()));
    result.output = readFile(output);
    return result;
}

RunResult dominoSim(std::vector<std::string> arguments, int expectedExit) {
    arguments.insert(arguments.begin(), DOMINO_SIM);
    RunResult result = run(arguments);
    EXPECT_EQ(result.exitCode, expectedExit) << arguments[1] << ": " << result.output;
    return result;
}

nlohmann::json dominoSimJson(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = arguments;
    all.emplace_back("--json");
    return nlohmann::json::parse(dominoSim(all).output, nullptr, false);
}

TestServer::TestServer(std::vector<std::string> initArguments) {
    initArguments.insert(initArguments.begin(), {"init", root(), "--databases", "5"});
    dominoSim(initArguments);
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
    : m_manifest((server.folder / "manifest.json").string()) {
    m_pid = spawn({DOMINO_SIM, "workload", server.root(), database, "--writers",
                   std::to_string(writers), "--manifest", m_manifest},
                  (server.folder / "workload.out").string());
    awaitCommit(); // the base
    awaitCommit();
}

Workload::~Workload() {
    stop();
}

void Workload::awaitCommit() {
    std::error_code error;
    std::uintmax_t size = 0;
    while ((size = fs::file_size(m_manifest, error)) == m_seen || error) {
        int status = 0;
        if (m_pid > 0 && ::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            ADD_FAILURE() << "the workload ended";
            return;
        }
        ::usleep(200);
    }
    m_seen = size;
}

void Workload::kill() {
    ::kill(-m_pid, SIGKILL); // its group: the writers, too
    EXPECT_EQ(await(m_pid), 1000 + SIGKILL);
    m_pid = -1;
}

void Workload::stop() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGTERM);
        EXPECT_EQ(await(m_pid), 0);
        m_pid = -1;
    }
}

Holder::Holder(const TestServer& server, const std::string& database, const std::string& seconds) {
    const fs::path output = server.folder / "holder.out";
    fs::remove(output);
    m_pid =
        spawn({DOMINO_SIM, "hold", server.root(), database, "--seconds", seconds}, output.string());
    while (readFile(output).find('\n') == std::string::npos) {
        ::usleep(1000);
    }
    EXPECT_EQ(readFile(output), "holds " + database + "\n");
}

Holder::~Holder() {
    ::kill(m_pid, SIGTERM);
    EXPECT_EQ(await(m_pid), 0);
}

OpenDb::OpenDb(const std::string& path) {
    EXPECT_EQ(NSFDbOpen(path.c_str(), &handle), 0) << path;
}

OpenDb::~OpenDb() {
    if (handle != 0) {
        EXPECT_EQ(NSFDbClose(handle), 0);
    }
}

std::pair<BOOL, UNIVERSALNOTEID> logInfo(const std::string& database) {
    const OpenDb db(database);
    BOOL logged = 7;
    UNIVERSALNOTEID logId = {};
    UNIVERSALNOTEID dbiid = {};
    DWORD extent = 0;
    EXPECT_EQ(NSFDbGetLogInfo(db.handle, 0, &logged, &logId, &dbiid, &extent), 0);
    return {logged, dbiid};
}

std::vector<NOTEID> idsOf(DHANDLE table) {
    std::vector<NOTEID> ids;
    NOTEID id = 0;
    for (BOOL first = 1; IDScan(table, first, &id) != 0; first = 0) {
        ids.push_back(id);
    }
    return ids;
}

void backUp(const std::string& database, const fs::path& source, const fs::path& copy,
            const CopySteps& steps) {
    OpenBackup backup(database);
    const DBHANDLE db = backup.database.handle;
    const DHANDLE context = backup.context;
    auto& [low, high] = backup.size;
    ASSERT_EQ(backup.status, 0);
    {
        std::ifstream in(source, std::ios::binary);
        std::ofstream out(copy, std::ios::binary | std::ios::trunc);
        const std::uint64_t size = static_cast<std::uint64_t>(high) << 32 | low;
        std::size_t chunks = 0;
        for (std::uint64_t at = 0; at < size;) {
            // Zeros stand for what is cut off meanwhile.
            std::string buffer(std::min<std::uint64_t>(size - at, steps.chunk), '\0');
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
        std::string path = copy.string();
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

bool inKilledProcess(const std::function<bool()>& body) {
    int fds[2] = {};
    if (::pipe(fds) != 0) {
        return false;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        const char answer = body() ? 'y' : 'n';
        static_cast<void>(!::write(fds[1], &answer, 1));
        ::kill(::getpid(), SIGKILL);
    }
    ::close(fds[1]);
    char answer = 0;
    const bool heard = ::read(fds[0], &answer, 1) == 1;
    ::close(fds[0]);
    return await(pid) == 1000 + SIGKILL && heard && answer == 'y';
}

std::string readFile(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

} // namespace simulator_tests
