// Runs the client's executable, with the real module over the simulated server's library.
#pragma once

#include "tests/support/files.h"
#include "tests/support/program.h"

#include <gmock/gmock.h>
#include <sys/mount.h>

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
                        {"TMPDIR", ""},
                        {"Notes_ExecDirectory", QRTLN_SIMULATOR_DIRECTORY}});
    return Program(std::move(words), environment);
}

inline Outcome run_client(const Words& words, const Environment& environment = {}) {
    return start_client(words, environment).wait();
}

} // namespace qrtln::test
