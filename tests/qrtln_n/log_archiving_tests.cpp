// The hand-over of transaction logs. Each test names an active log of its own: the one handed out
// last is kept for the process.
#include "qrt_lotus_notes/qrtln_n/log_archiving.h"

#include "tests/qrtln_n/notes_floor_test.h"

namespace {

constexpr UNIVERSALNOTEID kId = {{0x1, 0x20}, {0x300, 0x4000}};

Step style(DWORD value, STATUS status = 0) {
    return {"NSFGetTransLogStyle", {.status = status, .numbers = {value}}};
}

class LogArchivingTest : public NotesFloorTest {
  protected:
    // One request, as the client's next item makes it.
    int next(bool first) {
        active = TRUE;
        return QRTLN_GetArchiveFile(file, directory, first, &number, &id, &active);
    }

    char file[kPathSize] = "unchanged";
    char directory[kPathSize] = "";
    DWORD number = 0;
    UNIVERSALNOTEID id = {};
    BOOL active = FALSE;
};

TEST_F(LogArchivingTest, WithoutAnArchiveStyleNoSessionBeginsOrEndsAndNoLogIsHandedOut) {
    const char* const skipped = "endArchiveLogs(): Log style is CIRCULAR - therefor skip";
    const char* const unknown = "endArchiveLogs(): Getting system log style failed";
    const char* const required = "Archiving logs requires 'ARCHIVE' style transaction logging";
    const struct {
        Step style;
        int asked, begun, ended, handedOut;
        int answer; // the style
        std::string error;
        const char* begin; // what is said
        const char* end;
    } rows[] = {
        {style(0), 3000, 11, 11, 11, DB_LOGGING_STYLE_CIRC, "",
         "Lotus Notes has circular logging style enabled", skipped},
        // Linear counts as circular.
        {style(2), 3000, 11, 11, 11, DB_LOGGING_STYLE_CIRC, "",
         "Lotus Notes has linear logging style enabled", skipped},
        {style(0, 0x8000 | 5119), 1000, 14, 3000, 14, DB_LOGGING_STYLE_NOLOG, "Notes text 5119",
         "beginArchiveLogs(): Transactional logging is not in effect.", unknown},
        {style(0, 1234), 1000, 1000, 1000, 14, 0, "Notes text 1234", "Notes text 1234", unknown},
    };
    g_sQRTLN_Global.eI_OperationType = DB_TYPE_BCK;
    g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_FULL;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.begin);
        messages.clear();
        script.play({row.style, row.style, row.style, row.style});
        auto answer = static_cast<DB_LOGGING_STYLE>(0);
        EXPECT_EQ(getSystemLogStyle(&answer), row.asked);
        EXPECT_EQ(answer, row.answer);
        EXPECT_EQ(takeErrorText(), row.error);
        EXPECT_EQ(QRTLN_InitArchiveLogs(), row.begun);
        EXPECT_EQ(takeErrorText(), row.error.empty() ? required : row.error);
        EXPECT_TRUE(said(row.begin));
        // Whatever the cause, the style is named too.
        EXPECT_TRUE(said(std::string("DB_ErrHandler: ") + required));
        EXPECT_EQ(endArchiveLogs(), row.ended);
        EXPECT_TRUE(said(row.end));
        EXPECT_EQ(takeErrorText(), row.error);
        EXPECT_EQ(next(true), row.handedOut);
        EXPECT_FALSE(active);
        EXPECT_STREQ(file, "unchanged");
        takeErrorText();
    }
}

TEST_F(LogArchivingTest, AStyleThatCannotBeAskedForIsNoFailureOfAFullOrCopyBackupAlone) {
    for (const auto& [type, level, result] : {std::tuple{DB_TYPE_BCK, DB_LEVEL_COPY, 14},
                                              {DB_TYPE_BCK, DB_LEVEL_DIFF, 1000},
                                              {DB_TYPE_BCK, DB_LEVEL_INCR, 1000},
                                              {DB_TYPE_RST, DB_LEVEL_FULL, 1000}}) {
        g_sQRTLN_Global.eI_OperationType = type;
        g_sQRTLN_Global.eI_OperationLevel = level;
        script.play({style(0, 1234)});
        EXPECT_EQ(next(true), result) << type << ' ' << level;
        takeErrorText();
    }
    // One that is none of the three is an error, too, but a session begins.
    auto answer = static_cast<DB_LOGGING_STYLE>(0);
    script.play({style(3), style(3), {"NSFBeginArchivingLogs"}});
    EXPECT_EQ(getSystemLogStyle(&answer), 1000);
    EXPECT_THAT(takeErrorText(), testing::HasSubstr("neither ARCHIVE nor CIRCULAR"));
    EXPECT_EQ(QRTLN_InitArchiveLogs(), 3000);
    EXPECT_EQ(takeErrorText(), "");
}

TEST_F(LogArchivingTest, ASessionBeginsAndEndsAsTheServerAnswers) {
    for (const STATUS status : {0, 1234, 3758}) {
        SCOPED_TRACE(status);
        const std::string error = status == 0 ? "" : "Notes text " + std::to_string(status);
        script.play({style(1), {"NSFBeginArchivingLogs", {.status = status}}});
        // A session that was left open is ended, so that the next try succeeds.
        if (status == 3758) {
            script.play({style(1), {"NSFEndArchivingLogs"}});
        }
        EXPECT_EQ(QRTLN_InitArchiveLogs(), status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), error);
        script.expectPlayed();

        script.play({style(1), {"NSFEndArchivingLogs", {.status = status}}});
        EXPECT_EQ(endArchiveLogs(), status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), error);
    }
    for (const char* part : {"NSFBeginArchivingLogs() failed with 1234",
                             "NSFBeginArchivingLogs() failed with ERR_TRANSLOG_ARCHIVE_IN_PROGRESS",
                             "NSFEndArchivingLogs() failed with (1234)",
                             "Another process is currently archiving logs. (3758)"}) {
        EXPECT_TRUE(said(part)) << part;
    }
    EXPECT_TRUE(messages.hasLog("Call NSFBeginArchivingLogs()"));
    EXPECT_TRUE(messages.hasLog("Call NSFEndArchivingLogs()"));
}

TEST_F(LogArchivingTest, EveryReadyLogThenTheActiveOneOnceAreHandedOut) {
    DWORD expected = 4;
    const std::string first = "NSFGetFirstLogToArchive";
    const std::string further = "NSFGetNextLogToArchive";
    const struct {
        std::string call;
        STATUS status;
        std::string path;
        int result;
        std::string directory;
    } rows[] = {
        {first, 0, "/logs/S5.TXN", 3000, "/logs"},
        {further, 0, "S6.TXN", 3000, "S6.TXN"}, // a path without a directory is handed out, too
        {further, 0x4000 | 5086, "/logs/S7.TXN", 3000, "/logs"},
        {further, 5086, "/logs/S7.TXN", 3001, ""},
        // In a later operation, too, only when it has changed.
        {first, 5086, "/logs/S7.TXN", 3001, ""},
        {first, 5086, "S8.TXN", 3000, "S8.TXN"},
        {first, 5086, "", 3001, ""}, // an empty path names no log
        {first, 1234, "/logs/S9.TXN", 1000, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call + " " + row.path);
        ++expected;
        script.play({style(1),
                     {row.call,
                      {.status = row.status, .numbers = {expected}, .text = row.path, .id = kId}}});
        EXPECT_EQ(next(row.call == first), row.result);
        EXPECT_EQ(active, row.result == 3000 && row.status != 0);
        if (row.result == 3000) {
            EXPECT_EQ(file, row.path);
            EXPECT_EQ(directory, row.directory);
            EXPECT_EQ(number, expected);
            EXPECT_EQ(id.Note.Innards[1], kId.Note.Innards[1]);
        }
    }
    for (const char* part :
         {"Archive ID 00004321, Log number 5, log path [/logs/S5.TXN]",
          "Archive identity [00000001-00000020 0000030000004000], Log number 5",
          "getArchiveLog(): Log path is invalid", "return DB_NUM_I_COMPLETE",
          "Back up active archive ID 00004321, Log number 10, log path [S8.TXN]",
          "Archive identity [00000001-00000020 0000030000004000], Log number 10"}) {
        EXPECT_TRUE(said(part)) << part;
    }
}

TEST_F(LogArchivingTest, OnlyALogThatIsNoLongerWrittenIsMarkedArchived) {
    DWORD extent = 12;
    UNIVERSALNOTEID archive = kId;
    EXPECT_EQ(finishArchiveLog(&extent, &archive, TRUE), 3000);
    for (const STATUS status : {0, 1234}) {
        script.play({{"NSFDoneArchivingLog 1 16384 12", {.status = status}}});
        EXPECT_EQ(finishArchiveLog(&extent, &archive, FALSE), status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), status == 0 ? "" : "Notes text 1234");
    }
    EXPECT_TRUE(
        messages.hasLog("finishArchiveLog(): NSFDoneArchivingLog call failed: Notes text 1234"));
}

// A close after a start that found no library comes here with an empty table.
TEST(LogArchivingWithoutLibrary, ReportsInsteadOfCalling) {
    g_sQRTLN_Global = {};
    const MessageCapture messages;
    DWORD number = 0;
    UNIVERSALNOTEID id = {};
    for (const int result :
         {endArchiveLogs(), beginArchiveLogs(), finishArchiveLog(&number, &id, FALSE)}) {
        EXPECT_EQ(result, 1000);
    }
    TYPE_DB_Error error;
    takeError(&error);
    EXPECT_STREQ(error.szDBErrorMsg, kRuntimeNotInitialized);
}

} // namespace
