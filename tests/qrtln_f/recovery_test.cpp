#include "qrt_lotus_notes/qrtln_f/recovery.h"

#include <gmock/gmock.h>

#include "qrt_lotus_notes/qrtln_u/messages.h"
#include "qrt_lotus_notes/qrtln_u/roll_forward.h"
#include "tests/qrtln_f/fake_server.h"
#include "tests/support/message_capture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::vector<std::string> s_recovered; // the names given to the server, in their order

class Recovery : public testing::Test {
  protected:
    Recovery() {
        g_sQRTLN_Global.vpTraceFunc = traceFunction;
        g_sQRTLN_Global.vpLogFunc = logFunction;
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
        g_sQRTLN_Global.bRecovery = TRUE;
        s_recovered.clear();
        notes_api.NSFTakeDatabaseOffline = [](char*, DWORD, DWORD) -> STATUS { return 0; };
        notes_api.NSFBringDatabaseOnline = [](char*, DWORD) -> STATUS { return 0; };
        notes_api.NSFRecoverDatabases = [](char* names, LOGRESTORECALLBACKFUNCTION, DWORD, WORD*,
                                           TIMEDATE*) -> STATUS {
            for (; *names != '\0'; names += std::strlen(names) + 1) {
                s_recovered.emplace_back(names);
            }
            return 0;
        };
    }

    void rollForward() const {
        ASSERT_TRUE(readRollForward("YES", g_sQRTLN_Global.sRecoveryChoices));
    }
    void relocate(bool plain) const {
        copyText(g_sQRTLN_Global.szRelocationDir, server.folder.makeDirectory("r").c_str());
        g_sQRTLN_Global.bPlainRestore = plain;
    }
    // As DB_InitOperation runs it.
    int recover(const std::vector<std::string>& arguments) {
        for (const std::string& argument : arguments) {
            server.addArgument(argument);
        }
        const int result = QRTLN_InitRecovery();
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        return result == DB_NUM_I_OK ? QRTLN_Recovery() : result;
    }
    static std::string error() {
        TYPE_DB_Error error = {};
        takeError(&error);
        return error.szDBErrorMsg;
    }
    // Puts a restored copy under a folder of the test.
    std::string pend(const std::string& name) const { return server.folder.write(name, "new"); }

    MessageCapture messages;
    const TYPE_DB_MessageFunc traceFunction = g_sQRTLN_Global.vpTraceFunc;
    const TYPE_DB_MessageFunc logFunction = g_sQRTLN_Global.vpLogFunc;
    FakeServer server; // resets the record
};

TEST_F(Recovery, WithoutRollForwardNothingIsSelected) {
    server.addFile("names.nsf");
    server.addFile("mail/a.nsf");
    pend("tmp/names.nsf");
    struct Case {
        std::vector<std::string> arguments;
        const char* error;
        const char* trace;
    };
    const Case cases[] = {
        {{"QRTLN:NOTESDATA", "/never/read"},
         "getNotesFileList(): There are no files matching requested patterns",
         "QRTLN_InitRecovery(): Whole Lotus Notes System RECOVERY."},
        {{"QRTLN:" + server.data("names.nsf")},
         "",
         "QRTLN_Recovery(): The Database restore files COULD NOT be found."},
        {{server.data("lost.nsf")}, "No files found", nullptr},
        {{server.data("lost.nsf"), "QRTLN:" + server.data("mail")},
         "",
         "QRTLN_Recovery(): There is no files waiting to be recovered !"},
    };
    for (const Case& c : cases) {
        messages.clear();
        server.drain();
        EXPECT_EQ(recover(c.arguments), DB_NUM_E_FAILED);
        EXPECT_EQ(error(), c.error);
        if (c.trace != nullptr) {
            EXPECT_TRUE(messages.hasTrace(c.trace));
        }
        EXPECT_FALSE(messages.hasTrace("QRTLN_InitRecovery: Got argument [/never/read]"));
        EXPECT_TRUE(c.trace != nullptr ||
                    messages.hasTrace("QRTLN_InitRecovery(): Pattern does not assign any existing "
                                      "file: [" +
                                      server.data("lost.nsf") + "]"));
    }
    EXPECT_THAT(s_recovered, IsEmpty());
    EXPECT_TRUE(server.folder.exists("tmp/names.nsf"));
}

TEST_F(Recovery, TheSearchForCopiesWalksAndListsOnlyWhenRollingForward) {
    pend("tmp/a.nsf");
    pend("tmp/m/b.NTF");
    pend("tmp/m/notes.txt");
    pend("tmp/m/n/c.nsf");
    server.folder.makeDirectory("tmp/d.nsf");
    const std::string root = server.folder.file("tmp");
    for (const bool listed : {false, true}) {
        for (const std::string end : {"", "/"}) {
            messages.clear();
            g_sQRTLN_Global.sRecoveryChoices.bFindsPending = listed;
            LIST_INFO* pending = CreateFIFOList();
            EXPECT_EQ(QRTLN_GetRecoveryPendingFiles(pending, (root + end).c_str()), DB_NUM_I_OK);
            std::swap(pending, g_sQRTLN_Global.lhNotesFileList);
            const auto names = server.drainNames();
            std::swap(pending, g_sQRTLN_Global.lhNotesFileList);
            DestroyFIFOList(pending);
            if (listed) {
                EXPECT_THAT(names, UnorderedElementsAre(root + "/a.nsf", root + "/m/b.NTF",
                                                        root + "/m/n/c.nsf"));
            } else {
                EXPECT_THAT(names, IsEmpty());
            }
            EXPECT_TRUE(messages.hasTrace("QRTLN_GetRecoveryPendingFiles(): findFirst [" + root +
                                          "/m/n/*.nsf]"));
            EXPECT_FALSE(messages.hasTrace("QRTLN_GetRecoveryPendingFiles(): findFirst [" + root +
                                           "/m/*.nsf]"));
        }
    }
}

TEST_F(Recovery, RolledForwardTheSelectedCopiesReplaceTheirOriginals) {
    rollForward();
    server.addFile("names.nsf");
    server.addFile("names2.nsf");
    server.addFile("mail/a.nsf");
    for (const char* name : {"names.nsf", "names2.nsf", "mail/a.nsf", "mail/lost.box",
                             "gone/x[1].nsf", "gone/x1.nsf", "other/y.nsf"}) {
        pend(std::string("tmp/") + name);
    }
    for (const std::string end : {"", "/"}) {
        SCOPED_TRACE("TMP_DIR ends in \"" + end + "\"");
        copyText(g_sQRTLN_Global.szTmpDir, (server.folder.file("tmp") + end).c_str());
        s_recovered.clear();
        server.drain();
        for (const char* name : {"names.nsf", "mail/a.nsf", "mail/lost.box", "gone/x[1].nsf"}) {
            pend(std::string("tmp/") + name);
        }
        EXPECT_EQ(
            recover({"QRTLN:" + server.data("names.nsf"), server.data("names.nsf"),
                     "QRTLN:" + server.data("mail/a.nsf"), "QRTLN:" + server.data("mail/lost.box"),
                     "QRTLN:" + server.data("gone/x\\[1\\].nsf"),
                     "QRTLN:" + server.data("mail/nocopy.nsf")}),
            DB_NUM_I_COMPLETE);
        const std::string root = server.folder.file("tmp/");
        EXPECT_THAT(s_recovered,
                    UnorderedElementsAre(root + "names.nsf", root + "mail/a.nsf",
                                         root + "mail/lost.box", root + "gone/x[1].nsf"));
    }
    for (const char* name : {"names.nsf", "mail/a.nsf", "mail/lost.box", "gone/x[1].nsf"}) {
        EXPECT_EQ(server.folder.read(std::string("data/") + name), "new");
        EXPECT_FALSE(server.folder.exists(std::string("tmp/") + name));
        EXPECT_TRUE(messages.hasLog("ROLLFORWARD: recovered [" + server.data(name) + "]"));
    }
    EXPECT_TRUE(messages.hasLog("ROLLFORWARD: NOT recovered [" + server.data("mail/nocopy.nsf") +
                                "]: no restored copy of it waits for recovery"));
    EXPECT_TRUE(server.folder.exists("tmp/names2.nsf"));
    EXPECT_FALSE(server.folder.exists("data/other/y.nsf"));
}

// Live are all but lost.nsf and lost/y.nsf; copies wait of some.
TEST_F(Recovery, ANameCoversItselfAloneAndAPatternWhatItMatches) {
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> waiting;
        std::vector<std::string> recovered;
    };
    const Case cases[] = {
        {{"b.nsf"}, {"a.nsf", "b.nsf"}, {"b.nsf"}}, // used up, it covers nothing more
        {{"a\\[1\\].nsf"}, {"a1.nsf"}, {}},         // the name of an existing one
        {{"d[1]/*.*"}, {"d1/x.nsf"}, {}},           // wildcards in a directory's name are none
        {{"d[1]/*.*"}, {"d[1]/x.nsf", "d1/x.nsf"}, {"d[1]/x.nsf"}},
        {{"l*.nsf"}, {"a.nsf", "lost.nsf", "l.nsf"}, {"lost.nsf", "l.nsf"}},
        {{"lost/*"}, {"lost/y.nsf", "a.nsf"}, {"lost/y.nsf"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments[0]);
        server.drain();
        std::filesystem::remove_all(server.data("lost"));
        std::filesystem::remove_all(server.folder.file("tmp"));
        rollForward();
        s_recovered.clear();
        for (const char* name :
             {"a.nsf", "b.nsf", "a[1].nsf", "a1.nsf", "d[1]/x.nsf", "d1/x.nsf", "l.nsf"}) {
            server.addFile(name);
        }
        for (const std::string& name : c.waiting) {
            pend("tmp/" + name);
        }
        std::vector<std::string> arguments;
        for (const std::string& argument : c.arguments) {
            arguments.push_back("QRTLN:" + server.data(argument));
        }
        EXPECT_EQ(recover(arguments), c.recovered.empty() ? DB_NUM_E_FAILED : DB_NUM_I_COMPLETE);
        std::vector<std::string> expected;
        for (const std::string& name : c.recovered) {
            expected.push_back(server.folder.file("tmp/" + name));
        }
        EXPECT_THAT(s_recovered, testing::UnorderedElementsAreArray(expected));
    }
}

TEST_F(Recovery, RelocatedCopiesAreRecoveredWhereTheyLie) {
    rollForward();
    for (const bool plain : {false, true}) {
        SCOPED_TRACE(plain);
        relocate(plain);
        s_recovered.clear();
        server.addFile("mail/a.nsf");
        const std::string below = plain ? "r/" : "r" + server.data("mail/");
        const std::string live = pend(below + "a.nsf");
        const std::string lost = pend(below + "lost.nsf");
        pend(below + "other.nsf");
        pend(below + "deeper/a.nsf");
        pend("tmp/mail/a.nsf");
        EXPECT_EQ(recover({server.data("mail/a.nsf"), server.data("mail/lost.nsf")}),
                  DB_NUM_I_COMPLETE);
        EXPECT_THAT(s_recovered, UnorderedElementsAre(live, lost));
        EXPECT_EQ(server.folder.read("data/mail/a.nsf"), "content of mail/a.nsf");
        EXPECT_EQ(server.folder.read(below + "a.nsf"), "new");
        EXPECT_TRUE(messages.hasLog("ROLLFORWARD: recovered [" + live + "]"));
    }
}

TEST_F(Recovery, RolledForwardTheWholeSystemIsRecoveredInPlace) {
    rollForward();
    for (const char* name :
         {"a.nsf", "b.ns4", "m/C.NTF", "m/d.box", "e.ncf", "f.ns5", "g.id", "no[?]pair.nsf"}) {
        server.addFile(name);
    }
    // A pair of these paths does not fit an entry.
    const std::string tooLong =
        server.addFile(std::string(250, 'x') + "/" + std::string(250, 'y') + "/z.nsf");
    pend("tmp/a.nsf");
    EXPECT_EQ(recover({"QRTLN:NOTES"}), DB_NUM_I_COMPLETE);
    EXPECT_THAT(s_recovered, UnorderedElementsAre(server.data("a.nsf"), server.data("b.ns4"),
                                                  server.data("m/C.NTF"), server.data("m/d.box")));
    EXPECT_EQ(server.folder.read("data/a.nsf"), "content of a.nsf");
    EXPECT_EQ(server.folder.read("tmp/a.nsf"), "new");
    for (const std::string& name : {server.data("no[?]pair.nsf"), tooLong}) {
        EXPECT_TRUE(messages.hasLog("ROLLFORWARD: NOT recovered [" + name +
                                    "]: its path cannot be recovered"));
    }
}

TEST_F(Recovery, OfTheWholeSystemWhatIsMissingIsSkipped) {
    g_sQRTLN_Global.eI_BackupType = QRTLN_OPERATION_TYPE_NOTES;
    const std::string there = server.addFile("a.nsf");
    for (const std::string& name : {server.data("gone.nsf"), there}) {
        pushPath(g_sQRTLN_Global.lhNotesFileList, name.c_str(), DB_BACKUP_FILE_TYPE_DB);
    }
    EXPECT_EQ(QRTLN_Recovery(), DB_NUM_I_COMPLETE);
    EXPECT_THAT(s_recovered, ElementsAre(there));
    EXPECT_TRUE(messages.hasTrace("QRTLN_Recovery(): Restore File [" + server.data("gone.nsf") +
                                  "] does NOT EXISTS on file system."));
    std::filesystem::remove(there);
    EXPECT_EQ(QRTLN_Recovery(), DB_NUM_E_FAILED);
    EXPECT_EQ(error(), "Could not find any recovery pending file for recovery operation.");
}

TEST_F(Recovery, RolledForwardAnEmptyWaitingRoomIsReported) {
    rollForward();
    server.addFile("a.nsf");
    for (const std::string& tmpDir : {server.folder.file("tmp"), std::string()}) {
        copyText(g_sQRTLN_Global.szTmpDir, tmpDir.c_str());
        server.drain();
        EXPECT_EQ(recover({server.data("a.nsf")}), DB_NUM_E_FAILED);
        EXPECT_EQ(error(),
                  "QRTLN_Recovery(): no restored database waits for recovery in [" + tmpDir + "]");
    }
    EXPECT_THAT(s_recovered, IsEmpty());
}

} // namespace
