// A server that lists its logs only within a session, does not mark them, or is busy with others.
#include "tests/client/simulated_server.h"

#include <fcntl.h>
#include <sys/file.h>

namespace qrtln::test {
namespace {

using testing::HasSubstr;
using testing::Not;

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
    EXPECT_EQ(databases(full["set"]).size(), 6U);
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
    const struct {
        std::string task; // of domino-sim
        std::string options;
        const char* wait;
        int exit_code;
    } cases[] = {
        {"hold ", " --backup", "1", 3},
        {"hold ", "", "0", 0}, // what is left of the backup before is ended at once
        {"compact ", " --for 600", "1", 3},
        {"compact ", " --for 1", "60", 0},
    };
    for (const auto& [task, options, wait, code] : cases) {
        ServerTask held(task + m_server + " names.nsf" + options, SIGKILL);
        const json set = backup(code, "full", {"--busy-wait", wait});
        EXPECT_EQ(databases(set["set"]).size(), code == 0 ? 6U : 5U) << task;
        EXPECT_EQ(m_errors.find("of it is running: A backup") != std::string::npos, code != 0);
        domino("backups " + m_server);
        EXPECT_EQ(domino_said().find("context open") != std::string::npos, options == " --backup");
    }
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

} // namespace
} // namespace qrtln::test
