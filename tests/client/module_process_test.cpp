// The module's process: what is around it, and what becomes of it when the library keeps silent.
#ifdef QRTLN_DOMINO_SIM

#include "client/module_environment.h"
#include "tests/client/simulated_server.h"

#include <fstream>

namespace qrtln {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

TEST(ModuleEnvironment, TheVeryFileOrSymbolThatIsMissingIsNamed) {
    NotesIni ini;
    ini.program_directory = "/";
    const std::string no_file = ": cannot open shared object file: No such file or directory";
    for (const auto& [text, hint] :
         {std::pair<std::string, const char*>{"cannot load the Notes C API: libx.so.1" + no_file,
                                              "libx.so.1 is missing in /"},
          {"cannot load the Notes C API: libnotes.so" + no_file, "there is no libnotes.so in /"},
          {"/p/libnotes.so: undefined symbol: OSNone",
           "no library has OSNone, which /p/libnotes.so wants"},
          {"the Notes C API that was loaded lacks 2 of the functions needed, the first is A",
           "has no A"}})
        EXPECT_THAT(loader_hint(text, ini), HasSubstr(hint)) << text;
    EXPECT_EQ(loader_hint("Access to data denied.", ini), "");
}

class ModuleProcess : public test::OverTheSimulator {
  protected:
    void set(const std::string& variables) const {
        std::ofstream(m_server + "/notes.ini", std::ios::app) << variables << "\n";
    }
};

TEST_F(ModuleProcess, HasTheEnvironmentThatAServerWantsAndEndsWithASecondSignal) {
    fs::create_directories(m_server + "/data/NOTES"); // must not become an argument
    set("SimStrict=slow\nSimSlow=NSFBackupStart=never");
    const std::string journal = m_scratch / "journal";
    const std::string programs = QRTLN_SIMULATOR_DIRECTORY;
    test::RunningClient client(
        {"backup", "--notes-ini", m_server + "/notes.ini", "--store", m_store, "--tmp-dir", m_tmp},
        {{"QRTLN_MODULE", ""},
         {"Notes_ExecDirectory", programs},
         {"LD_LIBRARY_PATH", ":/inherited:"},
         {"LC_ALL", "C"},
         {"NOTES_SIM_JOURNAL", journal}});
    while (test::read_file(journal).find("NSFDbOpen(") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const std::string pid = std::to_string(client.pid());
    const std::string child = test::read_file("/proc/" + pid + "/task/" + pid + "/children");
    const std::string process = "/proc/" + child.substr(0, child.find(' '));
    const std::string environment = test::read_file(process + "/environ");
    EXPECT_THAT(environment,
                HasSubstr(std::string("LD_LIBRARY_PATH=" + programs + ":/inherited") + '\0'));
    EXPECT_THAT(environment, HasSubstr("PATH=" + programs + ":" + m_server + "/data:"));
    EXPECT_EQ(fs::read_symlink(process + "/cwd"), m_server + "/data");
    ::kill(client.pid(), SIGINT); // the library never returns
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ::kill(client.pid(), SIGINT);
    EXPECT_EQ(client.wait().exit_code, 130);
}

TEST_F(ModuleProcess, KeepsSilentNoLongerThanTheCallTimeout) {
    ASSERT_EQ(domino("create " + m_server + " mail/caf\xC3\xA9.nsf"), 0);
    set("SimStrict=slow,locale\nSimSlow=NSFBackupStart=never");
    auto failed = run(14, {"backup", "--call-timeout", "3"});
    EXPECT_THAT(failed["error"].get<std::string>(), HasSubstr("silent for 3 s while preparing /"));
    EXPECT_TRUE(fs::is_empty(m_tmp));
    set("SimSlow=NSFDbOpen=0");
    auto saved = run(0, {"backup"}, {{"LC_ALL", "C"}});
    EXPECT_THAT(databases(saved["set"]), testing::Contains("mail/caf\xC3\xA9.nsf"));
}

TEST_F(ModuleProcess, EndsWhenTheLibraryWorksWithAnotherDataDirectory) {
    set("SimDirectory=/");
    EXPECT_THAT(run(14, {"backup"})["error"].get<std::string>(), HasSubstr("data directory /,"));
    EXPECT_EQ(test::run_client({"module-process", "0"}, {}).exit_code, 2);
}

} // namespace
} // namespace qrtln
#endif
