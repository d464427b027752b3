// The hand-over of transaction logs. Each test names an active log of its own: the one handed out
// last is kept for the process.
#include "qrt_lotus_notes/qrtln_n/log_archiving.h"

#include "tests/qrtln_n/notes_floor_test.h"

namespace {

constexpr UNIVERSALNOTEID kLogId = {{0x1, 0x20}, {0x300, 0x4000}};

Step style(DWORD value, STATUS status = 0) {
    return {"NSFGetTransLogStyle", {.status = status, .numbers = {value}}};
}

class LogArchivingTest : public NotesFloorTest {
  protected:
    LogArchivingTest() { useLevel(DB_TYPE_BCK, DB_LEVEL_FULL); }

    static void useLevel(DB_OPERATION_TYPE type, DB_OPERATION_LEVEL level) {
        g_sQRTLN_Global.eI_OperationType = type;
        g_sQRTLN_Global.eI_OperationLevel = level;
    }
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
    const std::string required = "Archiving logs requires 'ARCHIVE' style transaction logging";
    const struct {
        Step style;
        int asked, begun, ended, handedOut;
        int answer; // the style
        std::string error;
    } rows[] = {
        {style(0), 3000, 11, 11, 11, DB_LOGGING_STYLE_CIRC, ""},
        {style(2), 3000, 11, 11, 11, DB_LOGGING_STYLE_CIRC, ""}, // linear counts as circular
        {style(0, 0x8000 | 5119), 1000, 14, 3000, 14, DB_LOGGING_STYLE_NOLOG, "Notes text 5119"},
        {style(0, 1234), 1000, 1000, 1000, 14, 0, "Notes text 1234"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.asked + row.answer);
        script.play({row.style, row.style, row.style, row.style});
        auto answer = static_cast<DB_LOGGING_STYLE>(0);
        EXPECT_EQ(getSystemLogStyle(&answer), row.asked);
        EXPECT_EQ(answer, row.answer);
        EXPECT_EQ(takeErrorText(), row.error);
        EXPECT_EQ(QRTLN_InitArchiveLogs(), row.begun);
        EXPECT_EQ(takeErrorText(), row.error.empty() ? required : row.error);
        EXPECT_EQ(endArchiveLogs(), row.ended);
        EXPECT_EQ(takeErrorText(), row.error);
        EXPECT_EQ(next(true), row.handedOut);
        EXPECT_FALSE(active);
        EXPECT_STREQ(file, "unchanged");
        takeErrorText();
    }
    EXPECT_EQ(logsWith("DB_ErrHandler: " + required), 4) << "whatever the cause";
    for (const char* part : {"has circular logging style", "has linear logging style",
                             "beginArchiveLogs(): Transactional logging is not in effect.",
                             "endArchiveLogs(): Getting system log style failed"}) {
        EXPECT_TRUE(said(part)) << part;
    }
}

TEST_F(LogArchivingTest, AStyleThatCannotBeAskedForIsNoFailureOfAFullOrCopyBackupAlone) {
    for (const auto& [type, level, result] : {std::tuple{DB_TYPE_BCK, DB_LEVEL_COPY, 14},
                                              {DB_TYPE_BCK, DB_LEVEL_INCR, 1000},
                                              {DB_TYPE_RST, DB_LEVEL_FULL, 1000}}) {
        useLevel(type, level);
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
        script.play(status == 3758 ? Steps{style(1), {"NSFEndArchivingLogs"}} : Steps{});
        EXPECT_EQ(QRTLN_InitArchiveLogs(), status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), error);
        script.expectPlayed();

        script.play({style(1), {"NSFEndArchivingLogs", {.status = status}}});
        EXPECT_EQ(endArchiveLogs(), status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), error);
    }
    EXPECT_TRUE(said("NSFBeginArchivingLogs() failed with ERR_TRANSLOG_ARCHIVE_IN_PROGRESS"));
    EXPECT_TRUE(said("Another process is currently archiving logs. (3758)"));
}

TEST_F(LogArchivingTest, EveryReadyLogThenTheActiveOneOnceAreHandedOut) {
    const std::string first = "NSFGetFirstLogToArchive", further = "NSFGetNextLogToArchive";
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
    DWORD expected = 4;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.call + " " + row.path);
        ++expected;
        script.play(
            {style(1),
             {row.call,
              {.status = row.status, .numbers = {expected}, .text = row.path, .id = kLogId}}});
        EXPECT_EQ(next(row.call == first), row.result);
        EXPECT_EQ(active, row.result == 3000 && row.status != 0);
        if (row.result == 3000) {
            EXPECT_EQ(file, row.path);
            EXPECT_EQ(directory, row.directory);
            EXPECT_EQ(number, expected);
            EXPECT_EQ(id.Note.Innards[1], kLogId.Note.Innards[1]);
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
    UNIVERSALNOTEID archive = kLogId;
    EXPECT_EQ(finishArchiveLog(&extent, &archive, TRUE), 3000);
    for (const STATUS status : {0, 1234}) {
        script.play({{"NSFDoneArchivingLog 1 16384 12", {.status = status}}});
        EXPECT_EQ(finishArchiveLog(&extent, &archive, FALSE), status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), status == 0 ? "" : "Notes text 1234");
    }
}

// A close after a start that found no library comes here with an empty table.
using LogArchivingWithoutLibrary = OperationTest;

TEST_F(LogArchivingWithoutLibrary, ReportsInsteadOfCalling) {
    DWORD number = 0;
    UNIVERSALNOTEID id = {};
    for (const int result :
         {endArchiveLogs(), beginArchiveLogs(), finishArchiveLog(&number, &id, FALSE)}) {
        EXPECT_EQ(result, 1000);
    }
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
}

} // namespace
