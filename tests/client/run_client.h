// Runs the client's executable, with the real module over the simulated server's library, and reads
// and writes the files of a test.
#pragma once

#include "tests/support/temporary_folder.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln::test {

struct ScratchFolder : TemporaryFolder {
    std::string operator/(const std::string& name) const { return file(name); }
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

using Words = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

// A client that runs; wait() or the destructor ends it.
class RunningClient {
  public:
    explicit RunningClient(Words words, const Environment& environment = {});
    ~RunningClient();
    RunningClient(const RunningClient&) = delete;
    RunningClient& operator=(const RunningClient&) = delete;
    pid_t pid() const { return m_pid; }
    Outcome wait();

  private:
    ScratchFolder m_files;
    pid_t m_pid = -1;
};

Outcome run_client(const Words& words, const Environment& environment = {});

void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path); // "" when there is none
void flip_a_bit(const std::string& file);       // in its middle; a second time flips it back

// Every file, folder and content below a folder, to compare states.
std::map<std::string, std::string> snapshot(const std::string& folder);

} // namespace qrtln::test
