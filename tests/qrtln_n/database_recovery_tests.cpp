// Databases taken offline, rolled forward, put in place and brought online.
#include "qrt_lotus_notes/qrtln_n/database_recovery.h"

#include "qrt_lotus_notes/qrtln_u/roll_forward.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

// Restored copies tmp/a.nsf, b, c … hold "new", originals data/a.nsf … "old".
class DatabaseRecovery : public NotesFloorTest {
  protected:
    DatabaseRecovery() { setenv("TZ", "CET-1", 1); }
    ~DatabaseRecovery() override { unsetenv("TZ"); }

    std::string copy(char name) const { return folder.file(std::string("tmp/") + name + ".nsf"); }
    std::string live(char name) const { return folder.file(std::string("data/") + name + ".nsf"); }

    int recover() const { return RecoverDb(g_sQRTLN_Global.lhNotesFileList); }
    // Starts over with one pair for each letter; a capital one has no original.
    void startWith(const std::string& names, const char* rollForward = nullptr) {
        std::string pairs;
        std::filesystem::remove_all(folder.file("tmp"));
        std::filesystem::remove_all(folder.file("data"));
        folder.makeDirectory("data");
        for (const char name : names) {
            folder.write(std::string("tmp/") + name + ".nsf", "new");
            if (std::islower(static_cast<unsigned char>(name)) != 0) {
                folder.write(std::string("data/") + name + ".nsf", "old");
            }
            pairs += copy(name) + "[?]" + live(name) + " ";
        }
        setQueue(g_sQRTLN_Global.lhNotesFileList, pairs);
        g_sQRTLN_Global.sRecoveryChoices = {};
        ASSERT_TRUE(rollForward == nullptr ||
                    readRollForward(rollForward, g_sQRTLN_Global.sRecoveryChoices));
        messages.clear();
        takeErrorText();
    }

    // Plays calls, each "offline a", "online a", "recover ab" or "identify ab" (which gives new
    // identities), with "=status" where it fails and "@n" for the database that is named then.
    void play(const std::string& calls, const std::string& until = "end") {
        std::istringstream words(calls);
        for (std::string call, rest; words >> call >> rest;) {
            char names[8] = "";
            unsigned status = 0;
            unsigned named = 0;
            ASSERT_GE(std::sscanf(rest.c_str(), "%7[^=]=%u@%u", names, &status, &named), 1);
            const NotesAnswer answer = {.status = static_cast<STATUS>(status), .numbers = {named}};
            std::string block;
            for (const char name : std::string(names)) {
                block += (block.empty() ? "L:" : ",L:") + copy(name);
            }
            const std::string path = " L:" + live(names[0]);
            script.play({{call == "offline"  ? "NSFTakeDatabaseOffline" + path + " 0 0"
                          : call == "online" ? "NSFBringDatabaseOnline" + path + " 0"
                                             : "NSFRecoverDatabases " + block +
                                                   (call == "recover" ? " 4 " : " 2 ") + until,
                          answer}});
        }
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
    // The lines for clients, each as "recovered a", "NOT recovered a" or "perhaps recovered a".
    std::string told() const {
        std::string text;
        for (const std::string& line : messages.logs()) {
            if (line.starts_with("ROLLFORWARD: ")) {
                text += (text.empty() ? "" : ", ") + line.substr(13, line.find('[') - 13) +
                        line[line.rfind('/') + 1];
            }
        }
        return text;
    }
};

TEST_F(DatabaseRecovery, TakesOfflineReplaysReplacesAndBringsOnline) {
    struct Case {
        const char* what;
        const char* names;
        const char* calls;
        int result;
        const char* outcome;
        const char* told = ""; // to clients; without rolling forward a part of the trace
        bool newDbiid = false;
    };
    const Case plain[] = {
        {"one over its original", "a", "offline a recover a online a", 3000, "a:new",
         "Recovery Successfully ended."},
        {"lost original", "A", "recover A online A", 3000, "A:new"},
        // The second deletion hits the entry that moved up: d, which stays offline, goes in the
        // place of c, which is in use.
        {"two in use: positions are not adjusted", "abcd",
         "offline a=5098 offline b offline c=9 offline d recover bc online b online c", 3000,
         "a:old+ b:new c:new d:old+"},
        {"the only one in use", "a", "offline a=5098", 1000, "a:old+"},
        {"the replay fails: originals stay offline", "ab", "offline a offline b recover ab=513@2",
         1000, "a:old+ b:old+", "Reason: Notes text 513."},
        {"the log does not know one", "ab",
         "offline a offline b recover ab=21498@2 online a online b", 3000, "a:new b:new",
         "Database has not been backed up on this server/instance of the log."},
        {"online fails: only the copies count", "a", "offline a recover a online a=9", 3000,
         "a:new"},
    };
    const Case rolledForward[] = {
        {"recovered", "aB", "offline a recover aB online a online B", 3000, "a:new B:new",
         "recovered a, recovered B"},
        {"two in use are excluded exactly", "abcd",
         "offline a=5098 offline b offline c=9 offline d recover bd online b online d", 3000,
         "a:old+ b:new c:old+ d:new", "NOT recovered a, NOT recovered c, recovered b, recovered d"},
        {"originals come back after a failed replay", "abC",
         "offline a offline b=5098 recover aC=513@2 online a", 1000, "a:old+ b:old+ C:-+",
         "NOT recovered b, NOT recovered a, NOT recovered C"},
        {"the log does not know two, and names one at a time", "ABCD",
         "recover ABCD=5114@1 recover BCD=5114@2 recover D online A online B online C online D",
         3000, "A:new B:new C:new D:new",
         "NOT recovered A, recovered B, NOT recovered C, recovered D"},
        {"one that is not known, and nobody says which", "AB",
         "recover AB=5114@3 online A online B", 3000, "A:new B:new",
         "perhaps recovered A, perhaps recovered B"},
        {"fails after one that is not known", "AB", "recover AB=5114@1 recover B=513@1", 1000,
         "A:-+ B:-+", "NOT recovered A, NOT recovered B"},
        {"the second of those that the log knows gets no new identity", "ABCD",
         "recover ABCD=5114@2 recover CD identify ACD=5114@2 online A online B online C online D",
         3000, "A:new B:new C:new D:new",
         "recovered A, NOT recovered B, NOT recovered C, perhaps recovered D", true},
        {"the log knows none that could get a new identity", "A", "recover A=5114@1 online A", 3000,
         "A:new", "NOT recovered A", true},
        {"giving new identities fails", "A", "recover A identify A=513@1", 1000, "A:-+",
         "NOT recovered A", true},
        {"each gets a new identity", "A", "recover A identify A online A", 3000, "A:new",
         "recovered A", true},
        {"online fails", "a", "offline a recover a online a=9", 3000, "a:new", "NOT recovered a"},
    };
    const auto run = [this](const Case& c, const char* rollForward) {
        SCOPED_TRACE(c.what);
        startWith(c.names, rollForward);
        g_sQRTLN_Global.bNewDbiid = c.newDbiid;
        play(c.calls);
        EXPECT_EQ(recover(), c.result);
        script.expectPlayed();
        EXPECT_EQ(outcome(c.names), c.outcome);
        EXPECT_EQ(told(), rollForward != nullptr ? c.told : "");
        EXPECT_TRUE(rollForward != nullptr || said(c.told));
        EXPECT_EQ(said("the recovery failed: Notes text 513"),
                  rollForward != nullptr && std::strstr(c.calls, "=513") != nullptr);
    };
    for (const Case& c : plain) {
        run(c, nullptr);
    }
    for (const Case& c : rolledForward) {
        run(c, "YES");
    }
}

TEST_F(DatabaseRecovery, AFailedCopyIsDeletedUnlessRolledForward) {
    for (const bool rollForward : {false, true}) {
        startWith("ab", rollForward ? "YES" : nullptr);
        std::filesystem::remove(live('a'));
        folder.makeDirectory("data/a.nsf"); // cannot be written to
        play("offline a offline b recover ab online a online b");
        EXPECT_EQ(recover(), 1000);
        EXPECT_EQ(outcome("ab"), rollForward ? "a:-+ b:new" : "a:- b:new");
        EXPECT_EQ(told(), rollForward ? "NOT recovered a, recovered b" : "");
        EXPECT_TRUE(said("Copy of file [U:L:@/tmp/a.nsf] to [U:L:@/data/a.nsf] FAILED"));
    }
}

// By whatever spelling of the path.
TEST_F(DatabaseRecovery, InPlaceNothingIsTakenOfflineCopiedOrDeleted) {
    startWith("ab");
    const std::string other = folder.file("data//b.nsf");
    setQueue(g_sQRTLN_Global.lhNotesFileList,
             live('a') + "[?]" + live('a') + " " + other + "[?]" + live('b'));
    script.play({{"NSFRecoverDatabases L:" + live('a') + ",L:" + other + " 2 end"}});
    play("online a online b");
    g_sQRTLN_Global.bNewDbiid = TRUE;
    EXPECT_EQ(recover(), 3000);
    EXPECT_EQ(outcome("ab"), "a:old+ b:old+");
}

TEST_F(DatabaseRecovery, TheMomentIsGivenToTheServerOnlyAsItself) {
    // 12:30:15 an hour east is 11:30:15 GMT, 4141500 hundredths; 15 January 2024 is day 2460325.
    const struct {
        const char* what;
        NotesAnswer conversion;
        bool recovers;
    } rows[] = {
        {"the moment", {.numbers = {4141500, 0x80000000 | 2460325}}, true},
        {"another hour", {.numbers = {4501500, 2460325}}, false},
        {"another day", {.numbers = {4141500, 2460326}}, false},
        {"not a time", {.status = 9}, false},
    };
    script.settings.Flags = 0x20; // month first: given to the server as day first
    copyText(script.settings.DateString, "/");
    copyText(script.settings.TimeString, ":");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        startWith("A", "20240115123015");
        script.play({{"ConvertTextToTIMEDATE 64 0 0 2 2 15/01/2024 12:30:15", row.conversion}});
        if (row.recovers) {
            play("recover A online A", "4141500:" + std::to_string(0x80000000 | 2460325));
        }
        EXPECT_EQ(recover(), row.recovers ? 3000 : 1000);
        EXPECT_EQ(takeErrorText().empty(), row.recovers);
        EXPECT_EQ(outcome("A"), row.recovers ? "A:new" : "A:-+");
    }
}

TEST_F(DatabaseRecovery, NoPathThatWasCutGoesToTheServerAndNoneWithoutARuntime) {
    const std::string longPath = "/" + std::string(1027, 'x');
    for (const auto& call : {TakeDbsOffline, BringDbsOnline}) {
        EXPECT_EQ(call(longPath.c_str()), 1000);
        EXPECT_THAT(takeErrorText(), testing::HasSubstr("(): File full path [U:L:/xxx"));
    }
    const std::string path = live('a');
    play("offline a online a");
    EXPECT_EQ(TakeDbsOffline(path.c_str()), 3000);
    EXPECT_EQ(ActivateDb(path.c_str()), 3000);
    EXPECT_TRUE(said("taken offline") && said("brought online"));
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    EXPECT_EQ(TakeDbsOffline(path.c_str()), 1000);
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
}

} // namespace
