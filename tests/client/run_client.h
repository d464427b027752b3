// Runs the client's executable, with the real module over the simulated server's library.
#pragma once

#include "tests/support/files.h"
#include "tests/support/program.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <unistd.h>

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

inline Program start_client(Words words, Environment environment = {}) {
    words.insert(words.begin(), QRTLN_EXECUTABLE);
    environment.insert({{"QRTLN_STORE", ""},
                        {"QRTLN_MODULE", ""},
                        {"QRTLN_CONFIG", "/dev/null"},
                        {"TMPDIR", ""},
                        {"Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY}});
    return Program(std::move(words), environment);
}

// Lines of JSON go where all of them are held against docs/schemas; the last tells how it ended.
inline void look_at_json(const Words& words, const Outcome& outcome) {
    if (std::find(words.begin(), words.end(), "--json") == words.end() || outcome.exit_code < 0)
        return;
    static int runs = 0;
    fs::create_directories(QRTLN_JSON_LINES);
    write_file(fmt::format("{}/{}-{}", QRTLN_JSON_LINES, ::getpid(), ++runs), outcome.output);
    const nlohmann::json last = outcome.document();
    const bool summary = last.value("message_type", "") == "summary";
    EXPECT_EQ(last.value(summary ? "exit_code" : "code", -1), outcome.exit_code)
        << testing::PrintToString(words) << outcome.output;
}

inline Outcome run_client(const Words& words, const Environment& environment = {}) {
    Outcome outcome = start_client(words, environment).wait();
    look_at_json(words, outcome);
    return outcome;
}

} // namespace qrtln::test
