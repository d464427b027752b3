// A server that lists its logs only within a session, does not mark them, is busy with others, or
// keeps silent.
#include "tests/client/simulated_server.h"

#include <fcntl.h>
#include <sys/file.h>

namespace qrtln::test {
namespace {

class BusyServer : public OverTheSimulator {};

TEST_F(BusyServer, LogsThatAreListedOnlyWithinASessionKeepNothingElseFromBeingStored) {
    init("--strict session");
    fill_extents(2);
    const auto all = extents();
    json full = backup(3, "full", {}, "--log-session");
    EXPECT_EQ(databases(full["set"]).size(), 6U);
    ASSERT_EQ(full["failed"].size(), 1U);
    EXPECT_EQ(full["failed"][0]["path"], "transaction logs");
    EXPECT_THAT(full["failed"][0]["reason"], HasSubstr("(status 16160)"));
    backup(1, "incr"); // a set without its logs is no base
    const Words session = {"--log-session"};
    full = backup(3, "full", session, "", fault("NSFBeginArchivingLogs=5"));
    EXPECT_THAT(full["failed"].dump(), HasSubstr("(status 5)"));
    EXPECT_EQ(extents(), all);
    backup(14, "full", session, "", fault("NSFDoneArchivingLog=5"));
    full = backup(0, "full", session); // its index is the full operation's
    EXPECT_THAT(index(), HasSubstr("names.nsf="));
    EXPECT_EQ(full["logs"]["first"], 1);
    EXPECT_EQ(extents().size(), 1U);
    EXPECT_EQ(backup(0, "incr")["base"], full["set"]);
}

TEST_F(BusyServer, LogsThatAreNotMarkedAreToldUntilALaterCloseWentWell) {
    backup(0);
    for (const char* level : {"full", "incr"}) {
        fill_extents(3);
        backup(14, level, {}, "a transaction log is not marked as archived, number ",
               fault("NSFDoneArchivingLog#2=5"));
        EXPECT_EQ(list().back()["status"], "complete, close failed");
        for (const char* next : {"diff", "incr"}) // the index is the one that the close left
            backup(0, next, {}, ": Status 5 has no text");
        EXPECT_EQ(extents().size(), 1U);
        backup(0, "incr");
        EXPECT_THAT(m_errors, Not(HasSubstr("not marked")));
    }
}

TEST_F(BusyServer, WhatOthersDoIsWaitedForAndNeverEnded) {
    init("--strict foreign");
    const std::string hold = "hold " + m_server + " names.nsf --backup";
    std::optional<ServerTask> other(hold);
    const json set = backup(3, "full", {"--busy-wait", "1"}, "of it is running: A backup");
    EXPECT_EQ(databases(set["set"]).size(), 5U);
    EXPECT_THAT(domino("backups"), HasSubstr("context open"));
    other.emplace("compact " + m_server + " names.nsf --for 1");
    EXPECT_EQ(databases(backup(0, "full", {"--busy-wait", "60"})["set"]).size(), 6U);
    // What a program that was killed left is ended at once.
    const std::string held = "sh -c 'echo $$; exec " QRTLN_DOMINO_SIM " " + hold + "' | ";
    ASSERT_EQ(std::system((held + "(read pid; read line; kill -9 $pid)").c_str()), 0);
    ASSERT_THAT(domino("backups"), HasSubstr("context open"));
    backup(0, "full", {"--busy-wait", "0"});
    EXPECT_THAT(domino("backups"), Not(HasSubstr("context open")));
}

TEST_F(BusyServer, TwoRunsThatBeginBackupsExcludeEachOther) {
    backup(0);
    FileDescriptor folder(::open(m_data.c_str(), O_RDONLY));
    ASSERT_EQ(::flock(folder.get(), LOCK_EX), 0); // as a run with another store does
    Words documents = {"documents", "deleted", "mail/user1.nsf", "--since", "2020-01-01 00:00"};
    run(0, documents);
    documents.emplace_back("--dry-run");
    for (const auto& words : {documents, Words{"backup", "--level", "copy"}})
        run(11, words, "process " + std::to_string(::getpid()) + " (");
}

// The module's process: what is around it, and what becomes of it when the library keeps silent.
class ModuleProcess : public OverTheSimulator {};

TEST_F(ModuleProcess, HasTheEnvironmentThatAServerWantsAndEndsWithASecondSignal) {
    fs::create_directories(m_data + "/NOTES"); // must not become an argument
    add_to_notes_ini("SimStrict=slow\nSimSlow=NSFBackupStart=never");
    const std::string journal = m_scratch / "journal", programs = QRTLN_SIMULATOR_DIRECTORY;
    Program client = start_client(
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
    domino("create", "mail/caf\xC3\xA9.nsf");
    add_to_notes_ini("SimStrict=slow,locale\nSimSlow=NSFBackupStart=never");
    backup(14, "full", {"--call-timeout", "3"}, "silent for 3 s while preparing /");
    add_to_notes_ini("SimSlow=NSFDbOpen=0");
    const json saved = backup(0, "full", {}, "", {{"LC_ALL", "C"}});
    EXPECT_THAT(databases(saved["set"]), Contains("mail/caf\xC3\xA9.nsf"));
}

TEST_F(ModuleProcess, EndsWhenTheLibraryWorksWithAnotherDataDirectory) {
    add_to_notes_ini("SimDirectory=/");
    backup(14, "full", {}, "data directory /,");
    EXPECT_EQ(run_client({"module-process", "0"}).exit_code, 2);
}

} // namespace
} // namespace qrtln::test
