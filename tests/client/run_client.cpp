#include "tests/client/run_client.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qrtln::test {

namespace fs = std::filesystem;

SmallFileSystem::SmallFileSystem(const std::string& folder, std::size_t bytes) : m_folder(folder) {
    fs::create_directories(folder);
    std::string options = "size=" + std::to_string(bytes);
    m_mounted = ::mount("qrtln-test", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

SmallFileSystem::~SmallFileSystem() {
    if (m_mounted)
        ::umount2(m_folder.c_str(), MNT_DETACH);
}

RunningClient::RunningClient(Words words, const Environment& environment) : m_pid(::fork()) {
    if (m_pid != 0)
        return;
    for (auto [name, stream] : {std::pair{"output", 1}, std::pair{"errors", 2}})
        ::dup2(::open((m_files / name).c_str(), O_WRONLY | O_CREAT, 0600), stream);
    for (const char* name : {"QRTLN_STORE", "QRTLN_MODULE", "TMPDIR"})
        ::unsetenv(name);
    ::setenv("Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY, 1);
    for (const auto& [name, value] : environment)
        ::setenv(name.c_str(), value.c_str(), 1);
    words.insert(words.begin(), QRTLN_EXECUTABLE);
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::execv(QRTLN_EXECUTABLE, arguments.data());
    ::_exit(127);
}

RunningClient::~RunningClient() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

Outcome RunningClient::wait() {
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
            read_file(m_files / "output"), read_file(m_files / "errors")};
}

Outcome run_client(const Words& words, const Environment& environment) {
    return RunningClient(words, environment).wait();
}

void write_file(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void flip_a_bit(const std::string& file) {
    std::string bytes = read_file(file);
    bytes[bytes.size() / 2] ^= 4;
    write_file(file, bytes);
}

std::map<std::string, std::string> snapshot(const std::string& folder) {
    std::map<std::string, std::string> state;
    if (!fs::exists(folder))
        return state;
    state["."] = "folder";
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        std::string name = entry.path().string().substr(folder.size());
        // The lock file names the process that had it last.
        if (name != "/lock")
            state[name] = entry.is_regular_file() ? read_file(entry.path()) : "folder";
    }
    return state;
}

} // namespace qrtln::test
