// Programs that tests run.
#pragma once

#include "tests/support/temporary_folder.h"

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <vector>

namespace qrtln::test {

using Words = std::vector<std::string>;
using Environment = std::map<std::string, std::string>; // "" takes a variable away

struct Outcome {
    int exit_code = -1; // minus the signal for a process that a signal ended
    std::string output = {};
    std::string errors = {};

    // The last line of what it printed, null when that is nothing.
    nlohmann::json document() const {
        if (output.size() < 2)
            return {};
        const std::size_t before = output.rfind('\n', output.size() - 2);
        return nlohmann::json::parse(output.substr(before == std::string::npos ? 0 : before + 1));
    }
};

int exit_code_of(int status);

// A program that runs, words[0] with these words; wait() or the destructor ends it, and so does the
// end of the test that started it. Throws std::system_error.
class Program {
  public:
    // `begin` is called in the new process first, which shares the memory of this one until the
    // program begins. REQUIRES: it calls the system alone; whoever traces the program waits for it.
    explicit Program(Words words, const Environment& environment = {}, void (*begin)() = nullptr);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    pid_t pid() const { return m_pid; }
    bool ended() const; // does not wait
    Outcome printed(int exit_code = -1) const;
    Outcome wait();
    void waited() { m_pid = -1; } // somebody else waited for its end

  private:
    TemporaryFolder m_files;
    pid_t m_pid = -1;
};

} // namespace qrtln::test
