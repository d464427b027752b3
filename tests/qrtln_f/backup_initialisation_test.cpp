#include "qrt_lotus_notes/qrtln_f/backup_initialisation.h"

#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "tests/interface/own_process.h"
#include "tests/qrtln_f/fake_server.h"

namespace {

class BackupInitialisation : public FakeServer {
  protected:
    ~BackupInitialisation() override { releaseDBIIDIndex(); }

    int start(const std::string& arguments) {
        setArguments(arguments);
        const int result = QRTLN_InitBackup();
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        return result;
    }
};

// What a plain argument found stays and is found again; a wildcard is dropped, and what follows is
// not looked at.
TEST_F(BackupInitialisation, TheWholeSystemEndsTheArguments) {
    addAll("a.nsf m/x.txt d/e.nsf");
    folder.makeDirectory("data/d.nsf");
    inOwnProcess([&] { // notes.ini comes once in a process
        EXPECT_EQ(start("@/data/a.nsf @/data/m/*.txt QRTLN:/ @/data/no.nsf"), DB_NUM_I_OK);
        EXPECT_EQ(g_sQRTLN_Global.eI_BackupType, QRTLN_OPERATION_TYPE_NOTES);
        EXPECT_EQ(sortedItems(), "@/data @/data @/data/a.nsf @/data/a.nsf @/data/d "
                                 "@/data/d/e.nsf @/data/notes.ini");
        EXPECT_EQ(start("@/data/d*"), DB_NUM_E_FAILED) << "directories alone";
        EXPECT_EQ(takeErrorText(),
                  "QRTLN_InitBackup: No files found which match input QRT arguments");
        EXPECT_EQ(start("@/data/a.nsf QRTLN:@/data/no.nsf"), DB_NUM_E_FAILED);
        EXPECT_FALSE(g_sQRTLN_Global.bNotesInitialized);
    });
}

TEST_F(BackupInitialisation, ArchivingSessionIsBegunAsLevelAndFlagSay) {
    const struct {
        DB_OPERATION_LEVEL level;
        BOOL withLogs;
        WORD style;
        STATUS beginStatus;
        int expected;
        int begins;
    } cases[] = {
        {DB_LEVEL_FULL, FALSE, kLogStyleArchive, 0, DB_NUM_I_OK, 0}, // the flag is set later
        {DB_LEVEL_FULL, TRUE, kLogStyleArchive, 0, DB_NUM_I_OK, 1},
        {DB_LEVEL_FULL, TRUE, kLogStyleArchive, 1, DB_NUM_E_FAILED, 1},
        {DB_LEVEL_FULL, TRUE, kLogStyleCircular, 0, DB_NUM_I_OK, 0},
        {DB_LEVEL_COPY, TRUE, kNoLogging, 0, DB_NUM_I_OK, 0},
        {DB_LEVEL_INCR, FALSE, kLogStyleArchive, 0, DB_NUM_I_OK, 1},
        {DB_LEVEL_INCR, FALSE, kLogStyleCircular, 0, DB_NUM_I_CIRCULAR_LOG, 0},
        {DB_LEVEL_INCR, FALSE, kNoLogging, 0, DB_NUM_E_FAILED, 0},
    };
    add("a.nsf");
    inOwnProcess([&] { // notes.ini comes once in a process
        for (const auto& c : cases) {
            SCOPED_TRACE(std::to_string(c.level) + " " + std::to_string(c.style));
            g_sQRTLN_Global.eI_OperationLevel = c.level;
            g_sQRTLN_Global.bWithArchiveLogs = c.withLogs;
            style = c.style;
            failures = {{c.beginStatus == 0 ? "" : "NSFBeginArchivingLogs", c.beginStatus}};
            calls.clear();
            EXPECT_EQ(start("NOTES"), c.expected);
            EXPECT_EQ(calls["NSFBeginArchivingLogs"], c.begins);
        }
    });
}

} // namespace
