#include "qrt_lotus_notes/qrtln_f/recovery.h"

#include "qrt_lotus_notes/qrtln_u/roll_forward.h"
#include "tests/qrtln_f/fake_server.h"

namespace {

std::string s_recovered; // the names given to the server

// A recovery that is rolled forward.
class Recovery : public FakeServer {
  protected:
    Recovery() {
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
        g_sQRTLN_Global.bRecovery = TRUE;
        EXPECT_TRUE(readRollForward("YES", g_sQRTLN_Global.sRecoveryChoices));
        notes_api.NSFTakeDatabaseOffline = [](char*, DWORD, DWORD) -> STATUS { return 0; };
        notes_api.NSFBringDatabaseOnline = [](char*, DWORD) -> STATUS { return 0; };
        notes_api.NSFRecoverDatabases = [](char* names, LOGRESTORECALLBACKFUNCTION, DWORD, WORD*,
                                           TIMEDATE*) -> STATUS {
            for (; *names != '\0'; names += std::strlen(names) + 1) {
                s_recovered += std::string(names) + " ";
            }
            return 0;
        };
    }

    // Runs it as DB_InitOperation does; what it recovers is in `recovered`.
    int recover(const std::string& arguments) {
        s_recovered.clear();
        messages.clear();
        items();
        setArguments(arguments);
        const int initialised = QRTLN_InitRecovery();
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        const int result = initialised == DB_NUM_I_OK ? QRTLN_Recovery() : initialised;
        LIST_INFO* list = nullptr;
        setQueue(list, s_recovered);
        recovered = drain(list, false);
        DestroyFIFOList(list);
        return result;
    }
    // Puts restored copies into the folder of the test.
    void pend(const std::string& names) const {
        for (const std::string& name : split(full(names))) {
            folder.write(name.substr(folder.path().size() + 1), "new");
        }
    }

    std::string recovered;
};

// Live are all but those in `lost`; copies wait of some.
TEST_F(Recovery, ANameCoversItselfAloneAndAPatternWhatItMatches) {
    const struct {
        const char* arguments;
        const char* waiting;
        const char* recovered;
        const char* leftOver = nullptr;
    } cases[] = {
        // Used up, it covers nothing more.
        {"@/data/b.nsf @/data/b.nsf", "@/tmp/a.nsf @/tmp/b.nsf", "@/tmp/b.nsf"},
        {"QRTLN:@/data/a\\[1\\].nsf", "@/tmp/a1.nsf", "", "a[1].nsf"},
        // Wildcards in a directory's name are none.
        {"@/data/d[1]/*.*", "@/tmp/d[1]/x.nsf @/tmp/d1/x.nsf", "@/tmp/d[1]/x.nsf"},
        {"@/data/l*.nsf", "@/tmp/a.nsf @/tmp/lost.nsf @/tmp/l.nsf", "@/tmp/l.nsf @/tmp/lost.nsf"},
        {"@/data/lost/*", "@/tmp/lost/y.nsf @/tmp/a.nsf", "@/tmp/lost/y.nsf"},
        {"@/data/a.nsf @/data/no.nsf", "@/tmp/a.nsf", "@/tmp/a.nsf", "no.nsf"},
        {"@/data/lost.nsf", "@/tmp/lost.nsf @/tmp/m/notes.txt @/tmp/d.nsf/e.nsf", "@/tmp/lost.nsf"},
    };
    for (const auto& c : cases) {
        for (const char* tmpDir : {"@/tmp", "@/tmp/"}) {
            SCOPED_TRACE(c.arguments);
            set(g_sQRTLN_Global.szTmpDir, tmpDir);
            for (const char* name : {"lost", "lost.nsf", "../tmp"}) {
                std::filesystem::remove_all(full("@/data/") + name);
            }
            addAll("a.nsf b.nsf a[1].nsf a1.nsf d[1]/x.nsf d1/x.nsf l.nsf");
            pend(c.waiting);
            EXPECT_EQ(recover(c.arguments),
                      *c.recovered == '\0' ? DB_NUM_E_FAILED : DB_NUM_I_COMPLETE);
            EXPECT_EQ(recovered, c.recovered);
            for (const std::string& copy : split(c.recovered)) {
                const std::string name = copy.substr(std::strlen("@/tmp/"));
                EXPECT_EQ(folder.read("data/" + name), "new");
                EXPECT_FALSE(folder.exists("tmp/" + name));
                EXPECT_TRUE(logged("ROLLFORWARD: recovered [@/data/" + name + "]"));
            }
            EXPECT_EQ(logsWith("NOT recovered"), c.leftOver != nullptr ? 1 : 0);
            EXPECT_EQ(logged("ROLLFORWARD: NOT recovered [@/data/" +
                             std::string(c.leftOver != nullptr ? c.leftOver : "") +
                             "]: no restored copy of it waits for recovery"),
                      c.leftOver != nullptr);
        }
    }
}

TEST_F(Recovery, RelocatedCopiesAreRecoveredWhereTheyLie) {
    add("mail/a.nsf");
    set(g_sQRTLN_Global.szRelocationDir, "@/r");
    for (const BOOL plain : {FALSE, TRUE}) {
        g_sQRTLN_Global.bPlainRestore = plain;
        const std::string below = plain ? "@/r/" : full("@/r@/data/mail/");
        pend(below + "a.nsf " + below + "lost.nsf " + below + "other.nsf " + below +
             "deeper/a.nsf @/tmp/mail/a.nsf");
        EXPECT_EQ(recover("@/data/mail/a.nsf @/data/mail/lost.nsf"), DB_NUM_I_COMPLETE);
        EXPECT_EQ(full(recovered), full(below + "a.nsf " + below + "lost.nsf"));
        EXPECT_EQ(folder.read("data/mail/a.nsf"), "content of mail/a.nsf");
    }
}

TEST_F(Recovery, TheWholeSystemIsRecoveredInPlace) {
    addAll("a.nsf b.ns4 m/C.NTF m/d.box e.ncf f.ns5 g.id no[?]pair.nsf");
    // A pair of these paths does not fit an entry.
    const std::string tooLong = add(std::string(250, 'x') + "/" + std::string(250, 'y') + "/z.nsf");
    pend("@/tmp/a.nsf");
    EXPECT_EQ(recover("QRTLN:NOTES"), DB_NUM_I_COMPLETE);
    EXPECT_EQ(recovered, "@/data/a.nsf @/data/b.ns4 @/data/m/C.NTF @/data/m/d.box");
    EXPECT_EQ(folder.read("data/a.nsf"), "content of a.nsf");
    for (const std::string& name : {std::string("@/data/no[?]pair.nsf"), tooLong}) {
        EXPECT_TRUE(
            logged("ROLLFORWARD: NOT recovered [" + name + "]: its path cannot be recovered"));
    }
    setQueue(g_sQRTLN_Global.lhNotesFileList, "@/data/gone.nsf");
    EXPECT_EQ(QRTLN_Recovery(), DB_NUM_E_FAILED);
    EXPECT_EQ(error(), "Could not find any recovery pending file for recovery operation.");
}

TEST_F(Recovery, WithoutACopyOrRollForwardNothingIsRecovered) {
    add("a.nsf");
    const struct {
        bool rolledForward;
        const char* tmpDir;
        const char* arguments;
        const char* error;
    } cases[] = {
        {true, "@/tmp", "@/data/a.nsf",
         "QRTLN_Recovery(): no restored database waits for recovery in [@/tmp]"},
        {true, "", "@/data/a.nsf",
         "QRTLN_Recovery(): no restored database waits for recovery in []"},
        {false, "@/r", "@/data/a.nsf", ""},
        {false, "@/r", "@/data/lost.nsf", "No files found"},
    };
    pend("@/r/a.nsf");
    for (const auto& c : cases) {
        g_sQRTLN_Global.sRecoveryChoices = {};
        EXPECT_TRUE(!c.rolledForward || readRollForward("YES", g_sQRTLN_Global.sRecoveryChoices));
        set(g_sQRTLN_Global.szTmpDir, c.tmpDir);
        EXPECT_EQ(recover(c.arguments), DB_NUM_E_FAILED);
        EXPECT_EQ(recovered, "");
        EXPECT_EQ(error(), c.error);
        EXPECT_EQ(
            messages.hasTrace("QRTLN_Recovery(): There is no files waiting to be recovered !"),
            std::strcmp(c.error, "No files found") != 0);
    }
}

} // namespace
