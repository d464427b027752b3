// Runs the client's executable, and folders that clean up after a test.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln::test {

// A new folder that is removed with the object.
class ScratchFolder {
  public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

// A small file system of its own; mounted() is false where this user may not mount one.
class SmallFileSystem {
  public:
    SmallFileSystem(const std::string& folder, std::size_t bytes);
    ~SmallFileSystem();
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;
    bool mounted() const { return m_mounted; }

  private:
    std::string m_folder;
    bool m_mounted = false;
};

struct Outcome {
    int exit_code = -1; // minus the signal for a process that a signal ended
    std::string output;
    std::string errors;
};

using Environment = std::map<std::string, std::string>;

// A client that runs; wait() or the destructor ends it.
class RunningClient {
  public:
    RunningClient(const std::vector<std::string>& arguments, const Environment& environment);
    ~RunningClient();
    RunningClient(const RunningClient&) = delete;
    RunningClient& operator=(const RunningClient&) = delete;
    pid_t pid() const { return m_pid; }
    Outcome wait();

  private:
    ScratchFolder m_files;
    pid_t m_pid = -1;
};

Outcome run_client(const std::vector<std::string>& arguments, const Environment& environment);

void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);

// Every file, folder and content below a folder, to compare states.
std::map<std::string, std::string> snapshot(const std::string& folder);

} // namespace qrtln::test
