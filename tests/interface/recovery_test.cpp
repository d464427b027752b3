// Recoveries at the module's interface, over the simulator.
#include <gmock/gmock.h>

#include "tests/interface/module_host.h"
#include "tests/interface/own_process.h"

namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;

const std::string kFirst = "names.nsf";
const std::string kSecond = "mail/user1.nsf";

// A server with a store of what its databases once were.
struct Recovery : Host {
    Recovery() {
        for (const std::string& name : {kFirst, kSecond}) {
            server.markSaved(name);
            server.copy(server.data(name), stored(name));
        }
    }
    std::string stored(const std::string& name) const {
        return server.folder.file("store/" + name);
    }
    // As a restore leaves it: the stored content under TMP_DIR.
    void pend(const std::string& name) const {
        server.copy(stored(name), server.folder.file("tmp/" + name));
    }

    // Runs a recovery of databases, as DB_InitOperation does it all.
    int recover(const std::vector<std::string>& names, std::vector<std::string> variables) {
        for (const std::string& name : names) {
            variables.push_back("DATABASE=" +
                                (name == "NOTES" ? name : "QRTLN:" + server.data(name)));
        }
        variables.emplace_back("RECOVERY=YES");
        const int result = module.open(server, DB_TYPE_RST, DB_LEVEL_FULL, variables);
        error = module.error();
        EXPECT_EQ(server.calls("NotesTerm("),
                  result == DB_NUM_I_COMPLETE ? 0 : server.calls("NotesInitExtended("))
            << "the runtime stays up after a success alone";
        char szItem[1028] = "/x.nsf";
        EXPECT_EQ(module.SetItem(DB_ITEM_TYPE_FILE, szItem), DB_NUM_E_FAILED)
            << "nothing is restored through a recovery";
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        return result;
    }
    bool toldRecovered(const std::string& name) const {
        return Module::logged("ROLLFORWARD: recovered [" + server.data(name) + "]");
    }

    std::string error; // of the pending error
};

TEST(Recovery, AfterAFailureTheOriginalsAreOnlineAndTheCopiesThere) {
    for (const bool lostLog : {false, true}) {
        SCOPED_TRACE(lostLog);
        inOwnProcess([&] {
            Recovery test;
            test.server.fillLog();
            const std::string log = test.server.server() + "/logs/S0000002.TXN";
            if (lostLog) {
                fs::rename(log, log + ".away");
            } else {
                setenv("NOTES_SIM_FAULTS", "NSFRecoverDatabases=513", 1);
            }
            test.pend(kFirst);
            test.pend(kSecond);
            EXPECT_EQ(test.recover({kFirst, kSecond}, {"ROLLFORWARD=YES"}), DB_NUM_E_FAILED);
            EXPECT_THAT(test.error, HasSubstr("RecoverDb(): the recovery failed: "));
            EXPECT_EQ(Module::logged("ROLLFORWARD: missing transaction log [" + log + "]"),
                      lostLog);
            EXPECT_EQ(test.server.filesBelow("tmp").size(), 2u);
            for (const std::string& name : {kFirst, kSecond}) {
                EXPECT_FALSE(test.toldRecovered(name));
                test.server.put(name); // fails for a database that is offline
            }
        });
    }
}

TEST(Recovery, WithoutRollForwardOrWithAWrongTimeNothingIsRecovered) {
    struct Case {
        std::string selection;
        std::vector<std::string> variables;
        const char* error;
        bool asked; // whether the server is asked for anything
    };
    for (const Case& c : {Case{kFirst, {}, "", true},
                          Case{"NOTES",
                               {},
                               "getNotesFileList(): There are no files matching requested patterns",
                               true},
                          Case{kFirst,
                               {"ROLLFORWARD=20240231000000"},
                               "ROLLFORWARD=20240231000000: there is no such date or time",
                               false}}) {
        SCOPED_TRACE(c.selection + c.error);
        inOwnProcess([&] {
            Recovery test;
            test.pend(kFirst);
            test.server.put(kFirst);
            const std::string before = test.server.live(kFirst);
            EXPECT_EQ(test.recover({c.selection}, c.variables), DB_NUM_E_FAILED);
            EXPECT_EQ(test.error, c.error);
            EXPECT_EQ(!test.server.journal().empty(), c.asked);
            EXPECT_EQ(test.server.calls("NSFRecoverDatabases("), 0);
            EXPECT_EQ(test.server.live(kFirst), before);
            EXPECT_TRUE(test.server.folder.exists("tmp/names.nsf"));
        });
    }
}

TEST_IN_OWN_PROCESS(Recovery, RolledForwardTheWholeSystemIsRecoveredWhereItLies) {
    server.put(kSecond);
    const std::string second = server.live(kSecond);
    server.copy(stored(kSecond), server.data(kSecond));
    ASSERT_NE(server.live(kSecond), second);
    EXPECT_EQ(recover({"NOTES"}, {"ROLLFORWARD=YES"}), DB_NUM_I_COMPLETE) << error;
    EXPECT_EQ(server.live(kSecond), second);
}

} // namespace
