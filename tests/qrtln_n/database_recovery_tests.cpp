#include "qrt_lotus_notes/qrtln_n/database_recovery.h"

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

using Lines = std::vector<std::string>;

// Restored copies tmp/a.nsf, b, c … hold "new", originals data/a.nsf … "old".
class DatabaseRecovery : public NotesFloorTest {
  protected:
    DatabaseRecovery() { setenv("TZ", "CET-1", 1); }
    ~DatabaseRecovery() override {
        unsetenv("TZ");
        DestroyFIFOList(list);
    }

    std::string copy(char name) const { return folder.file(std::string("tmp/") + name + ".nsf"); }
    std::string live(char name) const { return folder.file(std::string("data/") + name + ".nsf"); }

    void add(const std::string& restored, const std::string& original) const {
        pushPath(list, (restored + "[?]" + original).c_str(), DB_BACKUP_FILE_TYPE_DB);
    }
    // Starts over with one pair for each letter; a capital one has no original.
    void startWith(const std::string& names) {
        DestroyFIFOList(list);
        list = CreateFIFOList();
        std::filesystem::remove_all(folder.file("tmp"));
        std::filesystem::remove_all(folder.file("data"));
        folder.makeDirectory("data");
        for (const char name : names) {
            folder.write(std::string("tmp/") + name + ".nsf", "new");
            if (std::islower(static_cast<unsigned char>(name)) != 0) {
                folder.write(std::string("data/") + name + ".nsf", "old");
            }
            add(copy(name), live(name));
        }
        messages.clear();
        takeErrorText();
    }

    Step offline(char name, STATUS status = 0) const {
        return {"NSFTakeDatabaseOffline L:" + live(name) + " 0 0", {.status = status}};
    }
    Step online(char name, STATUS status = 0) const {
        return {"NSFBringDatabaseOnline L:" + live(name) + " 0", {.status = status}};
    }
    Step recover(const std::string& names, const Answer& answer = {},
                 const std::string& flagsAndTime = "4 end") const {
        std::string block;
        for (const char name : names) {
            block += (block.empty() ? "L:" : ",L:") + copy(name);
        }
        return {"NSFRecoverDatabases " + block + " " + flagsAndTime, answer};
    }
    // What each pair came to: "new" or "old" at its place ("-": nothing), "+" when the copy is
    // left.
    std::string outcome(const std::string& names) const {
        std::string text;
        for (const char name : names) {
            const std::string place = std::string("data/") + name + ".nsf";
            text +=
                std::string(text.empty() ? "" : " ") + name + ":" +
                (std::filesystem::is_regular_file(folder.file(place)) ? folder.read(place) : "-") +
                (std::filesystem::exists(copy(name)) ? "+" : "");
        }
        return text;
    }
    // The lines for clients, with only the file's name of each path.
    Lines told() const {
        Lines lines;
        for (std::string line : messages.logs()) {
            if (line.starts_with("ROLLFORWARD: ")) {
                line.erase(0, 13);
                const std::size_t open = line.find('[');
                line.erase(open + 1, line.rfind('/') - open);
                lines.push_back(line.substr(0, line.find(']') + 1));
            }
        }
        return lines;
    }

    LIST_INFO* list = CreateFIFOList();
};

TEST_F(DatabaseRecovery, TakesOfflineReplaysReplacesAndBringsOnline) {
    struct Case {
        const char* what;
        bool rollForward;
        const char* names;
        std::vector<Step> steps;
        int result;
        const char* outcome;
        Lines told; // with rollForward only
        bool newDbiid = false;
        int named = 0; // the status with which the trace names b, without rollForward
    };
    const Case cases[] = {
        {"one over its original",
         false,
         "a",
         {offline('a'), recover("a"), online('a')},
         3000,
         "a:new",
         {}},
        {"lost original", false, "A", {recover("A"), online('A')}, 3000, "A:new", {}},
        {"one in use",
         false,
         "abc",
         {offline('a'), offline('b', 0x8000 | 5098), offline('c'), recover("ac"), online('a'),
          online('c')},
         3000,
         "a:new b:old+ c:new",
         {}},
        // The second deletion hits the entry that moved up: d, which stays offline, goes in the
        // place of c, which is in use.
        {"two in use: positions are not adjusted",
         false,
         "abcd",
         {offline('a', 5098), offline('b'), offline('c', 9), offline('d'), recover("bc"),
          online('b'), online('c')},
         3000,
         "a:old+ b:new c:new d:old+",
         {}},
        {"all in use",
         false,
         "ab",
         {offline('a', 5098), offline('b', 5098), recover("b"), online('b')},
         3000,
         "a:old+ b:new",
         {}},
        {"the only one in use", false, "a", {offline('a', 5098)}, 1000, "a:old+", {}},
        {"the replay fails: originals stay offline",
         false,
         "ab",
         {offline('a'), offline('b'), recover("ab", {.status = 513, .numbers = {2}})},
         1000,
         "a:old+ b:old+",
         {},
         false,
         513},
        {"the log does not know one",
         false,
         "ab",
         {offline('a'), offline('b'), recover("ab", {.status = 0x4000 | 5114, .numbers = {2}}),
          online('a'), online('b')},
         3000,
         "a:new b:new",
         {},
         false,
         5114},
        {"online fails: only the copies count",
         false,
         "a",
         {offline('a'), recover("a"), online('a', 9)},
         3000,
         "a:new",
         {}},

        {"rolled forward: recovered",
         true,
         "aB",
         {offline('a'), recover("aB"), online('a'), online('B')},
         3000,
         "a:new B:new",
         {"recovered [a.nsf]", "recovered [B.nsf]"}},
        {"rolled forward: two in use are excluded exactly",
         true,
         "abcd",
         {offline('a', 5098), offline('b'), offline('c', 9), offline('d'), recover("bd"),
          online('b'), online('d')},
         3000,
         "a:old+ b:new c:old+ d:new",
         {"NOT recovered [a.nsf]", "NOT recovered [c.nsf]", "recovered [b.nsf]",
          "recovered [d.nsf]"}},
        {"rolled forward: all in use",
         true,
         "ab",
         {offline('a', 5098), offline('b', 5098)},
         1000,
         "a:old+ b:old+",
         {"NOT recovered [a.nsf]", "NOT recovered [b.nsf]"}},
        {"rolled forward: originals come back after a failed replay",
         true,
         "abC",
         {offline('a'), offline('b', 5098), recover("aC", {.status = 513, .numbers = {2}}),
          online('a')},
         1000,
         "a:old+ b:old+ C:-+",
         {"NOT recovered [b.nsf]", "NOT recovered [a.nsf]", "NOT recovered [C.nsf]"}},
        {"rolled forward: the log does not know two, and names one at a time",
         true,
         "ABCD",
         {recover("ABCD", {.status = 5114, .numbers = {1}}),
          recover("BCD", {.status = 5114, .numbers = {2}}), recover("D"), online('A'), online('B'),
          online('C'), online('D')},
         3000,
         "A:new B:new C:new D:new",
         {"NOT recovered [A.nsf]", "recovered [B.nsf]", "NOT recovered [C.nsf]",
          "recovered [D.nsf]"}},
        {"rolled forward: one that is not known, and nobody says which",
         true,
         "AB",
         {recover("AB", {.status = 5114, .numbers = {3}}), online('A'), online('B')},
         3000,
         "A:new B:new",
         {"perhaps recovered [A.nsf]", "perhaps recovered [B.nsf]"}},
        {"rolled forward: fails after one that is not known",
         true,
         "AB",
         {recover("AB", {.status = 5114, .numbers = {1}}),
          recover("B", {.status = 513, .numbers = {1}})},
         1000,
         "A:-+ B:-+",
         {"NOT recovered [A.nsf]", "NOT recovered [B.nsf]"}},
        {"rolled forward: the second of those that the log knows gets no new identity",
         true,
         "ABCD",
         {recover("ABCD", {.status = 5114, .numbers = {2}}), recover("CD"),
          recover("ACD", {.status = 5114, .numbers = {2}}, "2 end"), online('A'), online('B'),
          online('C'), online('D')},
         3000,
         "A:new B:new C:new D:new",
         {"recovered [A.nsf]", "NOT recovered [B.nsf]", "NOT recovered [C.nsf]",
          "perhaps recovered [D.nsf]"},
         true},
        {"rolled forward: the log knows none that could get a new identity",
         true,
         "A",
         {recover("A", {.status = 5114, .numbers = {1}}), online('A')},
         3000,
         "A:new",
         {"NOT recovered [A.nsf]"},
         true},
        {"rolled forward: giving new identities fails",
         true,
         "A",
         {recover("A"), recover("A", {.status = 513, .numbers = {1}}, "2 end")},
         1000,
         "A:-+",
         {"NOT recovered [A.nsf]"},
         true},
        {"rolled forward: each gets a new identity",
         true,
         "A",
         {recover("A"), recover("A", {}, "2 end"), online('A')},
         3000,
         "A:new",
         {"recovered [A.nsf]"},
         true},
        {"rolled forward: online fails",
         true,
         "a",
         {offline('a'), recover("a"), online('a', 9)},
         3000,
         "a:new",
         {"NOT recovered [a.nsf]"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        startWith(c.names);
        g_sQRTLN_Global.sRecoveryChoices = {};
        if (c.rollForward) {
            ASSERT_TRUE(readRollForward("YES", g_sQRTLN_Global.sRecoveryChoices));
        }
        g_sQRTLN_Global.bNewDbiid = c.newDbiid;
        script.play(c.steps);
        EXPECT_EQ(RecoverDb(list), c.result);
        EXPECT_TRUE(script.done());
        EXPECT_EQ(outcome(c.names), c.outcome);
        EXPECT_EQ(told(), c.told);
        EXPECT_TRUE(c.rollForward ||
                    messages.hasTrace("RecoverDb(): Error recovering file [U:L:" + copy('b') +
                                      "]. Reason: Notes text " + std::to_string(c.named) + ".") ==
                        (c.named != 0));
        EXPECT_TRUE(c.rollForward ||
                    messages.hasTrace("RecoverDb(): Database has not been backed up on this "
                                      "server/instance of the log.") == (c.named == 5114));
    }
}

TEST_F(DatabaseRecovery, AFailedCopyIsDeletedUnlessRolledForward) {
    for (const bool rollForward : {false, true}) {
        SCOPED_TRACE(rollForward);
        startWith("ab");
        g_sQRTLN_Global.sRecoveryChoices = {};
        if (rollForward) {
            ASSERT_TRUE(readRollForward("YES", g_sQRTLN_Global.sRecoveryChoices));
        }
        std::filesystem::remove(live('a'));
        folder.makeDirectory("data/a.nsf"); // cannot be written to
        script.play({offline('a'), offline('b'), recover("ab"), online('a'), online('b')});
        EXPECT_EQ(RecoverDb(list), 1000);
        EXPECT_EQ(outcome("ab"), rollForward ? "a:-+ b:new" : "a:- b:new");
        EXPECT_TRUE(messages.hasTrace("RecoverDb(): Copy of file [U:L:" + copy('a') +
                                      "] to [U:L:" + live('a') + "] FAILED"));
        EXPECT_EQ(told(),
                  rollForward ? (Lines{"NOT recovered [a.nsf]", "recovered [b.nsf]"}) : Lines{});
    }
}

TEST_F(DatabaseRecovery, TheDirectoryOfALostOriginalIsCreatedOnlyWhenRollingForward) {
    for (const bool rollForward : {false, true}) {
        startWith("A");
        std::filesystem::remove_all(folder.file("data"));
        g_sQRTLN_Global.sRecoveryChoices.bCreatesDirectories = rollForward;
        g_sQRTLN_Global.sRecoveryChoices.bKeepsUnplaced = rollForward;
        script.play({recover("A"), online('A')});
        EXPECT_EQ(RecoverDb(list), rollForward ? 3000 : 1000);
        EXPECT_EQ(outcome("A"), rollForward ? "A:new" : "A:-");
    }
}

// By whatever spelling of the path.
TEST_F(DatabaseRecovery, InPlaceNothingIsTakenOfflineCopiedOrDeleted) {
    startWith("ab");
    DestroyFIFOList(list);
    list = CreateFIFOList();
    add(live('a'), live('a'));
    add(folder.file("data//b.nsf"), live('b'));
    script.play(
        {{"NSFRecoverDatabases L:" + live('a') + ",L:" + folder.file("data//b.nsf") + " 2 end"},
         online('a'),
         online('b')});
    g_sQRTLN_Global.bNewDbiid = TRUE;
    EXPECT_EQ(RecoverDb(list), 3000);
    EXPECT_EQ(outcome("ab"), "a:old+ b:old+");
}

TEST_F(DatabaseRecovery, TheMomentIsGivenToTheServerOnlyAsItself) {
    struct Case {
        const char* what;
        Answer conversion;
        bool recovers;
    };
    // 12:30:15 an hour east is 11:30:15 GMT, 4141500 hundredths; 15 January 2024 is day 2460325.
    const Case cases[] = {
        {"the moment", {.numbers = {4141500, 0x80000000 | 2460325}}, true},
        {"another hour", {.numbers = {4501500, 2460325}}, false},
        {"another day", {.numbers = {4141500, 2460326}}, false},
        {"not a time", {.status = 9}, false},
    };
    script.settings.Flags = 0x20; // month first: given to the server as day first
    copyText(script.settings.DateString, "/");
    copyText(script.settings.TimeString, ":");
    ASSERT_TRUE(readRollForward("20240115123015", g_sQRTLN_Global.sRecoveryChoices));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        startWith("a");
        script.play({{"ConvertTextToTIMEDATE 64 0 0 2 2 15/01/2024 12:30:15", c.conversion}});
        if (c.recovers) {
            script.play({offline('a'),
                         recover("a", {}, "4 4141500:" + std::to_string(0x80000000 | 2460325)),
                         online('a')});
        }
        EXPECT_EQ(RecoverDb(list), c.recovers ? 3000 : 1000);
        EXPECT_EQ(takeErrorText().empty(), c.recovers);
        EXPECT_EQ(outcome("a"), c.recovers ? "a:new" : "a:old+");
    }
}

TEST_F(DatabaseRecovery, TheServerIsToldWhetherALogIsThere) {
    const std::string log = folder.write("logs/S0000007.TXN");
    startWith("a");
    script.play({offline('a'), recover("a", {.text = log}), online('a')});
    EXPECT_EQ(RecoverDb(list), 3000);
    EXPECT_TRUE(
        messages.hasTrace("LogRestoreCallBack(): Transaction Log requested: [" + log + "]."));
    startWith("a");
    ASSERT_TRUE(readRollForward("YES", g_sQRTLN_Global.sRecoveryChoices));
    script.play({offline('a'), recover("a", {.text = log + "2"}), online('a')});
    EXPECT_EQ(RecoverDb(list), 1000);
    EXPECT_TRUE(messages.hasTrace("LogRestoreCallBack(): Requested Transaction Log [" + log +
                                  "2] does not exist!"));
    EXPECT_TRUE(messages.hasLog("ROLLFORWARD: missing transaction log [" + log + "2]"));
    EXPECT_EQ(takeErrorText(), "RecoverDb(): the recovery failed: Notes text 5000");
}

} // namespace
