// Runs the client's executable, with the real module over the simulated server's library, and reads
// and writes the files of a test.
#pragma once

#include "tests/support/temporary_folder.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace qrtln::test {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

struct ScratchFolder : TemporaryFolder {
    std::string operator/(const std::string& name) const { return file(name); }
};

// A small file system of its own; mounted() is false where this user may not mount one.
class SmallFileSystem {
  public:
    SmallFileSystem(const std::string& folder, std::size_t bytes) : m_folder(folder) {
        fs::create_directories(folder);
        const std::string options = "size=" + std::to_string(bytes);
        m_mounted = ::mount("qrtln-test", folder.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~SmallFileSystem() {
        if (m_mounted)
            ::umount2(m_folder.c_str(), MNT_DETACH);
    }
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;
    bool mounted() const { return m_mounted; }

  private:
    std::string m_folder;
    bool m_mounted = false;
};

inline void write_file(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// "" when there is none.
inline std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// In the middle of a file; a second time flips it back.
inline void flip_a_bit(const std::string& file) {
    std::string bytes = read_file(file);
    bytes[bytes.size() / 2] ^= 4;
    write_file(file, bytes);
}

// Every file, folder and content below a folder, to compare states.
inline std::map<std::string, std::string> snapshot(const std::string& folder) {
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

struct Outcome {
    int exit_code = -1; // minus the signal for a process that a signal ended
    std::string output;
    std::string errors;
};

using Words = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

// A client that runs; wait() or the destructor ends it.
class RunningClient {
  public:
    explicit RunningClient(Words words, const Environment& environment = {}) : m_pid(::fork()) {
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
    ~RunningClient() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    RunningClient(const RunningClient&) = delete;
    RunningClient& operator=(const RunningClient&) = delete;
    pid_t pid() const { return m_pid; }
    Outcome wait() {
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
                read_file(m_files / "output"), read_file(m_files / "errors")};
    }

  private:
    ScratchFolder m_files;
    pid_t m_pid = -1;
};

inline Outcome run_client(const Words& words, const Environment& environment = {}) {
    return RunningClient(words, environment).wait();
}

} // namespace qrtln::test
