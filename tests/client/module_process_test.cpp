// The module's process: what is around it, and what becomes of it when the library keeps silent.
#include "tests/client/simulated_server.h"

namespace qrtln::test {
namespace {

using testing::HasSubstr;

class ModuleProcess : public OverTheSimulator {};

TEST_F(ModuleProcess, HasTheEnvironmentThatAServerWantsAndEndsWithASecondSignal) {
    fs::create_directories(m_data + "/NOTES"); // must not become an argument
    add_to_notes_ini("SimStrict=slow\nSimSlow=NSFBackupStart=never");
    const std::string journal = m_scratch / "journal", programs = QRTLN_SIMULATOR_DIRECTORY;
    RunningClient client(
        on_server({"backup"}),
        {{"LD_LIBRARY_PATH", ":/inherited:"}, {"LC_ALL", "C"}, {"NOTES_SIM_JOURNAL", journal}});
    while (read_file(journal).find("NSFDbOpen(") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const std::string pid = std::to_string(client.pid());
    const std::string child = read_file("/proc/" + pid + "/task/" + pid + "/children");
    const std::string process = "/proc/" + child.substr(0, child.find(' '));
    const std::string environment = read_file(process + "/environ");
    EXPECT_THAT(environment,
                HasSubstr(std::string("LD_LIBRARY_PATH=" + programs + ":/inherited") + '\0'));
    EXPECT_THAT(environment, HasSubstr("PATH=" + programs + ":" + m_data + ":"));
    EXPECT_EQ(fs::read_symlink(process + "/cwd"), m_data);
    ::kill(client.pid(), SIGINT); // the library never returns
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ::kill(client.pid(), SIGINT);
    EXPECT_EQ(client.wait().exit_code, 130);
}

TEST_F(ModuleProcess, KeepsSilentNoLongerThanTheCallTimeout) {
    ASSERT_EQ(domino("create " + m_server + " mail/caf\xC3\xA9.nsf"), 0);
    add_to_notes_ini("SimStrict=slow,locale\nSimSlow=NSFBackupStart=never");
    backup(14, "full", {"--call-timeout", "3"}, "silent for 3 s while preparing /");
    add_to_notes_ini("SimSlow=NSFDbOpen=0");
    const json saved = backup(0, "full", {}, "", {{"LC_ALL", "C"}});
    EXPECT_THAT(databases(saved["set"]), testing::Contains("mail/caf\xC3\xA9.nsf"));
}

TEST_F(ModuleProcess, EndsWhenTheLibraryWorksWithAnotherDataDirectory) {
    add_to_notes_ini("SimDirectory=/");
    backup(14, "full", {}, "data directory /,");
    EXPECT_EQ(run_client({"module-process", "0"}).exit_code, 2);
}

} // namespace
} // namespace qrtln::test
