#include "qrt_lotus_notes/qrtln_f/recovery.h"

#include "qrt_lotus_notes/qrtln_u/roll_forward.h"
#include "tests/qrtln_f/fake_server.h"

namespace {

// A recovery that is rolled forward.
class Recovery : public FakeServer {
  protected:
    Recovery() {
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
        g_sQRTLN_Global.bRecovery = TRUE;
        EXPECT_TRUE(readRollForward("YES", g_sQRTLN_Global.sRecoveryChoices));
    }

    // Runs it as DB_InitOperation does, and compares what it gives to the server.
    int recover(const std::string& arguments, const std::string& expected) {
        recovered.clear();
        messages.clear();
        items();
        setArguments(arguments);
        const int initialised = QRTLN_InitRecovery();
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        const int result = initialised == DB_NUM_I_OK ? QRTLN_Recovery() : initialised;
        EXPECT_THAT(split(replaced(recovered, ",", " ")),
                    testing::UnorderedElementsAreArray(split(full(expected))));
        return result;
    }
    // Puts restored copies into the folder of the test.
    void pend(const std::string& names) const {
        for (const std::string& name : split(full(names))) {
            folder.write(name.substr(folder.path().size() + 1), "new");
        }
    }
};

// Live are all but those in `lost`; copies wait of some.
TEST_F(Recovery, ANameCoversItselfAloneAndAPatternWhatItMatches) {
    const struct {
        const char* arguments;
        const char* waiting;
        const char* recovered;
        const char* leftOver = "";
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
            EXPECT_EQ(recover(c.arguments, c.recovered),
                      *c.recovered == '\0' ? DB_NUM_E_FAILED : DB_NUM_I_COMPLETE);
            for (const std::string& copy : split(c.recovered)) {
                const std::string name = copy.substr(std::strlen("@/tmp/"));
                EXPECT_EQ(folder.read("data/" + name), "new");
                EXPECT_FALSE(folder.exists("tmp/" + name));
                EXPECT_TRUE(logged("ROLLFORWARD: recovered [@/data/" + name + "]"));
            }
            const std::string missing =
                std::string("[@/data/") + c.leftOver + "]: no restored copy";
            EXPECT_EQ(logsWith("NOT recovered"), *c.leftOver == '\0' ? 0 : 1);
            EXPECT_EQ(logsWith("ROLLFORWARD: NOT recovered " + missing + " of it waits"),
                      *c.leftOver == '\0' ? 0 : 1);
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
        EXPECT_EQ(recover("@/data/mail/a.nsf @/data/mail/lost.nsf",
                          below + "a.nsf " + below + "lost.nsf"),
                  DB_NUM_I_COMPLETE);
        EXPECT_EQ(folder.read("data/mail/a.nsf"), "content of mail/a.nsf");
    }
}

TEST_F(Recovery, TheWholeSystemIsRecoveredInPlace) {
    addAll("a.nsf b.ns4 m/C.NTF m/d.box e.ncf f.ns5 g.id no[?]pair.nsf");
    // A pair of these paths does not fit an entry.
    const std::string tooLong = add(std::string(250, 'x') + "/" + std::string(250, 'y') + "/z.nsf");
    pend("@/tmp/a.nsf");
    EXPECT_EQ(recover("QRTLN:NOTES", "@/data/a.nsf @/data/b.ns4 @/data/m/C.NTF @/data/m/d.box"),
              DB_NUM_I_COMPLETE);
    EXPECT_EQ(folder.read("data/a.nsf"), "content of a.nsf");
    for (const std::string& name : {std::string("@/data/no[?]pair.nsf"), tooLong}) {
        EXPECT_TRUE(
            logged("ROLLFORWARD: NOT recovered [" + name + "]: its path cannot be recovered"));
    }
    setQueue(g_sQRTLN_Global.lhNotesFileList, "@/data/gone.nsf");
    EXPECT_EQ(QRTLN_Recovery(), DB_NUM_E_FAILED);
    EXPECT_EQ(takeErrorText(), "Could not find any recovery pending file for recovery operation.");
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
        EXPECT_EQ(recover(c.arguments, ""), DB_NUM_E_FAILED);
        EXPECT_EQ(takeErrorText(), c.error);
        EXPECT_EQ(
            messages.hasTrace("QRTLN_Recovery(): There is no files waiting to be recovered !"),
            std::strcmp(c.error, "No files found") != 0);
    }
}

} // namespace
