#include "tests/client/run_client.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qrtln::test {

namespace fs = std::filesystem;

ScratchFolder::ScratchFolder() {
    // No "-" before what is made up: with an "R" or "o" it would be an option to the module.
    std::string path = (fs::temp_directory_path() / "qrtln-test_XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr)
        throw std::runtime_error("cannot create " + path);
    m_path = path;
}

ScratchFolder::~ScratchFolder() {
    std::error_code error;
    fs::remove_all(m_path, error);
}

SmallFileSystem::SmallFileSystem(const std::string& folder, std::size_t bytes) : m_folder(folder) {
    fs::create_directories(folder);
    std::string options = "size=" + std::to_string(bytes);
    m_mounted = ::mount("qrtln-test", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

SmallFileSystem::~SmallFileSystem() {
    if (m_mounted)
        ::umount2(m_folder.c_str(), MNT_DETACH);
}

RunningClient::RunningClient(const std::vector<std::string>& arguments,
                             const Environment& environment) {
    std::vector<std::string> texts = {QRTLN_EXECUTABLE};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    m_pid = ::fork();
    if (m_pid == 0) {
        for (auto [name, stream] : {std::pair{"output", 1}, std::pair{"errors", 2}}) {
            int fd = ::open((m_files / name).c_str(), O_WRONLY | O_CREAT, 0600);
            ::dup2(fd, stream);
        }
        for (const char* name : {"QRTLN_STORE", "TMPDIR", "Notes_ExecDirectory"})
            ::unsetenv(name);
        ::setenv("QRTLN_MODULE", QRTLN_FAKE_MODULE, 1);
        for (const auto& [name, value] : environment)
            ::setenv(name.c_str(), value.c_str(), 1);
        std::vector<char*> pointers;
        for (std::string& text : texts)
            pointers.push_back(text.data());
        pointers.push_back(nullptr);
        ::execv(QRTLN_EXECUTABLE, pointers.data());
        ::_exit(127);
    }
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
    Outcome outcome;
    outcome.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    outcome.output = read_file(m_files / "output");
    outcome.errors = read_file(m_files / "errors");
    return outcome;
}

Outcome run_client(const std::vector<std::string>& arguments, const Environment& environment) {
    return RunningClient(arguments, environment).wait();
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

std::map<std::string, std::string> snapshot(const std::string& folder) {
    std::map<std::string, std::string> state;
    if (!fs::exists(folder))
        return state;
    if (!fs::is_directory(folder))
        return {{".", read_file(folder)}};
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
