// A server that lists its logs only within a session, does not mark them, or is busy with others.
#ifdef QRTLN_DOMINO_SIM

#include "tests/client/simulated_server.h"

#include <fcntl.h>
#include <sys/file.h>

namespace qrtln {
namespace {

using nlohmann::json;
using test::read_file;
using testing::HasSubstr;
using testing::Not;

class BusyServer : public test::OverTheSimulator {
  protected:
    void begin(const std::string& mood) {
        m_server = m_scratch / mood;
        domino("init " + m_server + " --databases 6 --extent-size 65536 --strict " + mood);
        fill_extents(2);
    }
};

TEST_F(BusyServer, LogsThatAreListedOnlyWithinASessionKeepNothingElseFromBeingStored) {
    begin("session");
    const auto all = extents();
    json full = run(3, {"backup"});
    EXPECT_THAT(m_errors, HasSubstr("--log-session"));
    EXPECT_EQ(databases(full["set"]).size(), 6U);
    ASSERT_EQ(full["failed"].size(), 1U);
    EXPECT_EQ(full["failed"][0]["path"], "transaction logs");
    EXPECT_THAT(full["failed"][0]["reason"], HasSubstr("(status 16160)"));
    run(1, {"backup", "--level", "incr"}); // a set without its logs is no base
    full = run(3, {"backup", "--log-session"}, {{"NOTES_SIM_FAULTS", "NSFBeginArchivingLogs=5"}});
    EXPECT_THAT(full["failed"].dump(), HasSubstr("(status 5)"));
    EXPECT_EQ(extents(), all);
    run(14, {"backup", "--log-session"}, {{"NOTES_SIM_FAULTS", "NSFDoneArchivingLog=5"}});
    full = run(0, {"backup", "--log-session"}); // its index is the full operation's
    EXPECT_THAT(read_file(m_store + "/runtime/qrtln_DBIID.ini"), HasSubstr("names.nsf="));
    EXPECT_EQ(databases(full["set"]).size(), 6U);
    EXPECT_EQ(full["logs"]["first"], 1);
    EXPECT_EQ(extents().size(), 1U);
    EXPECT_EQ(run(0, {"backup", "--level", "incr"})["base"], full["set"]);
}

TEST_F(BusyServer, LogsThatAreNotMarkedAreToldUntilALaterCloseWentWell) {
    run(0, {"backup"});
    for (const char* level : {"full", "incr"}) {
        fill_extents(3);
        run(14, {"backup", "--level", level}, {{"NOTES_SIM_FAULTS", "NSFDoneArchivingLog#2=5"}});
        EXPECT_THAT(m_errors, HasSubstr("a transaction log is not marked as archived, number "));
        EXPECT_EQ(list().back()["status"], "complete, close failed");
        for (const char* next : {"diff", "incr"}) { // the index is the one that the close left
            run(0, {"backup", "--level", next});
            EXPECT_THAT(m_errors, HasSubstr(": Status 5 has no text"));
        }
        EXPECT_EQ(extents().size(), 1U);
        run(0, {"backup", "--level", "incr"});
        EXPECT_THAT(m_errors, Not(HasSubstr("not marked")));
    }
}

TEST_F(BusyServer, WhatOthersDoIsWaitedForAndNeverEnded) {
    begin("foreign");
    const struct {
        std::string command; // of domino-sim
        std::string options;
        const char* wait;
        int exit_code;
    } cases[] = {
        {"hold", "--backup", "1", 3},
        {"hold", "", "0", 0}, // what is left of the backup before is ended at once
        {"compact", "--for 600", "1", 3},
        {"compact", "--for 1", "60", 0},
    };
    for (const auto& row : cases) {
        test::HeldDatabase held(m_server, "names.nsf", row.command, row.options);
        json set = run(row.exit_code, {"backup", "--busy-wait", row.wait});
        EXPECT_EQ(databases(set["set"]).size(), row.exit_code == 0 ? 6U : 5U) << row.command;
        EXPECT_EQ(m_errors.find("of it is running: A backup") != std::string::npos,
                  row.exit_code != 0);
        domino("backups " + m_server);
        EXPECT_EQ(read_file(m_scratch / "domino-sim.out").find("context open") != std::string::npos,
                  row.options == "--backup");
    }
}

TEST_F(BusyServer, TwoRunsThatBeginBackupsExcludeEachOther) {
    run(0, {"backup"});
    FileDescriptor folder(::open((m_server + "/data").c_str(), O_RDONLY));
    ASSERT_EQ(::flock(folder.get(), LOCK_EX), 0); // as a run with another store does
    std::vector<std::string> documents = {"documents", "deleted", "mail/user1.nsf", "--since",
                                          "2020-01-01 00:00"};
    run(0, documents);
    documents.emplace_back("--dry-run");
    for (const auto& words : {documents, std::vector<std::string>{"backup", "--level", "copy"}}) {
        run(11, words);
        EXPECT_THAT(m_errors, HasSubstr("process " + std::to_string(::getpid()) + " ("));
    }
}

} // namespace
} // namespace qrtln

#endif
