// The hand-over of transaction logs. Each test names an active log of its own: the one handed out
// last is kept for the process.
#include "qrt_lotus_notes/qrtln_n/log_archiving.h"

#include <gmock/gmock.h>

#include "common/bounded_text.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr UNIVERSALNOTEID kId = {{0x1, 0x20}, {0x300, 0x4000}};

Step style(DWORD value, STATUS status = 0) {
    return {"NSFGetTransLogStyle", {.status = status, .numbers = {value}}};
}

class LogArchivingTest : public NotesFloorTest {
  protected:
    // One request, as the client's next item makes it.
    int next(bool first) {
        copyText(file, "unchanged");
        copyText(directory, "unchanged");
        active = TRUE;
        return QRTLN_GetArchiveFile(file, directory, first, &number, &id, &active);
    }

    char file[kPathSize] = "";
    char directory[kPathSize] = "";
    DWORD number = 0;
    UNIVERSALNOTEID id = {};
    BOOL active = FALSE;
};

constexpr char kRequiresArchive[] = "Archiving logs requires 'ARCHIVE' style transaction logging";

// What was logged but for the reports of errors.
std::vector<std::string> plainLogs(const MessageCapture& messages) {
    std::vector<std::string> logs;
    for (const std::string& text : messages.logs()) {
        if (!text.starts_with("DB_ErrHandler: ")) {
            logs.push_back(text);
        }
    }
    return logs;
}

TEST_F(LogArchivingTest, WithoutAnArchiveStyleNoSessionBeginsOrEndsAndNoLogIsHandedOut) {
    const std::string none = "endArchiveLogs(): Getting system log style failed";
    const std::string skipped =
        "endArchiveLogs(): Log style is CIRCULAR - therefor skip NSFEndArchivingLogs()";
    const struct {
        Step style;
        int asked, begun, ended, handedOut;
        int answer; // the style
        const char* error;
        std::vector<std::string> logs; // of the begin
        std::string logOfEnd;
    } rows[] = {
        {style(0),
         3000,
         11,
         11,
         11,
         DB_LOGGING_STYLE_CIRC,
         "",
         {"Lotus Notes has circular logging style enabled"},
         skipped},
        // Linear counts as circular.
        {style(2),
         3000,
         11,
         11,
         11,
         DB_LOGGING_STYLE_CIRC,
         "",
         {"Lotus Notes has linear logging style enabled"},
         skipped},
        {style(0, 0x8000 | 5119),
         1000,
         14,
         3000,
         14,
         DB_LOGGING_STYLE_NOLOG,
         "Notes text 5119",
         {"Notes text 5119", "beginArchiveLogs(): Transactional logging is not in effect."},
         none},
        {style(0, 1234), 1000, 1000, 1000, 14, 0, "Notes text 1234", {"Notes text 1234"}, none},
    };
    g_sQRTLN_Global.eI_OperationType = DB_TYPE_BCK;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logs.front());
        script.play({row.style, row.style, row.style, row.style});
        auto answer = static_cast<DB_LOGGING_STYLE>(0);
        EXPECT_EQ(getSystemLogStyle(&answer), row.asked);
        EXPECT_EQ(answer, row.answer);
        EXPECT_EQ(takeErrorText(), row.error);

        messages.clear();
        EXPECT_EQ(QRTLN_InitArchiveLogs(), row.begun);
        EXPECT_EQ(takeErrorText(), *row.error == '\0' ? kRequiresArchive : row.error);
        EXPECT_EQ(plainLogs(messages), row.logs);
        // Whatever the cause, the style is named too.
        EXPECT_TRUE(messages.hasLog(std::string("DB_ErrHandler: ") + kRequiresArchive));

        EXPECT_EQ(endArchiveLogs(), row.ended);
        EXPECT_EQ(takeErrorText(), row.error);
        EXPECT_TRUE(messages.hasLog(row.logOfEnd));

        g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_FULL;
        EXPECT_EQ(next(true), row.handedOut);
        EXPECT_FALSE(active);
        EXPECT_STREQ(file, "unchanged");
        takeErrorText();
    }
    // A style that cannot be asked for is no failure of a full or copy backup alone.
    const struct {
        DB_OPERATION_TYPE type;
        DB_OPERATION_LEVEL level;
        int result;
    } levels[] = {{DB_TYPE_BCK, DB_LEVEL_COPY, 14},
                  {DB_TYPE_BCK, DB_LEVEL_DIFF, 1000},
                  {DB_TYPE_BCK, DB_LEVEL_INCR, 1000},
                  {DB_TYPE_RST, DB_LEVEL_FULL, 1000}};
    for (const auto& row : levels) {
        g_sQRTLN_Global.eI_OperationType = row.type;
        g_sQRTLN_Global.eI_OperationLevel = row.level;
        script.play({style(0, 1234)});
        EXPECT_EQ(next(true), row.result) << row.type << ' ' << row.level;
    }
    script.play({style(1), {"NSFGetFirstLogToArchive", {.status = 1234}}});
    EXPECT_EQ(next(true), 1000);
}

TEST_F(LogArchivingTest, AStyleThatIsNoneOfThreeIsAnErrorButASessionBegins) {
    auto answer = static_cast<DB_LOGGING_STYLE>(0);
    script.play({style(3), style(3), {"NSFBeginArchivingLogs"}});
    EXPECT_EQ(getSystemLogStyle(&answer), 1000);
    EXPECT_EQ(takeErrorText(),
              "getSystemLogStyle(): NSFGetTransLogStyle returned neither ARCHIVE nor CIRCULAR "
              "style.");
    EXPECT_EQ(QRTLN_InitArchiveLogs(), 3000);
    EXPECT_EQ(takeErrorText(), "");
}

TEST_F(LogArchivingTest, ASessionBeginsAndEndsAsTheServerAnswers) {
    const std::string failed = "beginArchiveLogs(): NSFBeginArchivingLogs() failed with ";
    const std::string call = "Call NSFBeginArchivingLogs()";
    const struct {
        STATUS status;
        std::vector<std::string> begun, ended; // what is logged
    } rows[] = {
        {0, {call}, {"Call NSFEndArchivingLogs()"}},
        {1234,
         {call, failed + "1234", "Notes text 1234"},
         {"Call NSFEndArchivingLogs()",
          "endArchiveLogs(): NSFEndArchivingLogs() failed with (1234)", "Notes text 1234"}},
        // A session that was left open is ended, so that the next try succeeds.
        {3758,
         {call, failed + "3758", "Notes text 3758", failed + "ERR_TRANSLOG_ARCHIVE_IN_PROGRESS",
          "Call NSFEndArchivingLogs()"},
         {"Call NSFEndArchivingLogs()",
          "endArchiveLogs(): Another process is currently archiving logs. (3758)",
          "Notes text 3758"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        const std::string error = row.status == 0 ? "" : "Notes text " + std::to_string(row.status);
        messages.clear();
        script.play({style(1), {"NSFBeginArchivingLogs", {.status = row.status}}});
        if (row.status == 3758) {
            script.play({style(1), {"NSFEndArchivingLogs"}});
        }
        EXPECT_EQ(QRTLN_InitArchiveLogs(), row.status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), error);
        EXPECT_EQ(plainLogs(messages), row.begun);

        messages.clear();
        script.play({style(1), {"NSFEndArchivingLogs", {.status = row.status}}});
        EXPECT_EQ(endArchiveLogs(), row.status == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(), error);
        EXPECT_EQ(plainLogs(messages), row.ended);
    }
}

TEST_F(LogArchivingTest, EveryReadyLogThenTheActiveOneOnceAreHandedOut) {
    script.play({
        style(1),
        {"NSFGetFirstLogToArchive", {.numbers = {5}, .text = "/logs/S5.TXN", .id = kId}},
        style(1),
        {"NSFGetNextLogToArchive", {.numbers = {6}, .text = "S6.TXN", .id = kId}},
        style(1),
        {"NSFGetNextLogToArchive",
         {.status = 0x4000 | 5086, .numbers = {7}, .text = "/logs/S7.TXN", .id = kId}},
        style(1),
        {"NSFGetNextLogToArchive",
         {.status = 5086, .numbers = {7}, .text = "/logs/S7.TXN", .id = kId}},
    });
    EXPECT_EQ(next(true), 3000);
    EXPECT_STREQ(file, "/logs/S5.TXN");
    EXPECT_STREQ(directory, "/logs");
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(id.Note.Innards[1], kId.Note.Innards[1]);
    EXPECT_FALSE(active);

    // A path without a directory is handed out all the same.
    EXPECT_EQ(next(false), 3000);
    EXPECT_STREQ(file, "S6.TXN");
    EXPECT_STREQ(directory, "S6.TXN");
    EXPECT_TRUE(messages.hasTrace("getArchiveLog(): Log path is invalid"));

    EXPECT_EQ(next(false), 3000);
    EXPECT_STREQ(file, "/logs/S7.TXN");
    EXPECT_STREQ(directory, "/logs");
    EXPECT_TRUE(active);

    EXPECT_EQ(next(false), 3001);
    EXPECT_FALSE(active);
    EXPECT_THAT(messages.logs(),
                ElementsAre("Archive ID 00004321, Log number 5, log path [/logs/S5.TXN]",
                            "Archive identity [00000001-00000020 0000030000004000], Log number 5",
                            "Archive ID 00004321, Log number 6, log path [S6.TXN]",
                            "Archive identity [00000001-00000020 0000030000004000], Log number 6",
                            "Back up active archive ID 00004321, Log number 7, log path "
                            "[/logs/S7.TXN]",
                            "Archive identity [00000001-00000020 0000030000004000], Log number 7"));
    EXPECT_TRUE(messages.hasTrace("QRTLN_GetArchiveFile: return DB_NUM_I_COMPLETE"));
    EXPECT_EQ(takeErrorText(), "");
}

TEST_F(LogArchivingTest, ALaterOperationHandsTheActiveLogOutOnlyWhenItHasChanged) {
    const auto activeLog = [](const char* path) {
        return Step{"NSFGetFirstLogToArchive", {.status = 5086, .text = path, .id = kId}};
    };
    script.play({style(1), activeLog("active1.TXN"), style(1), activeLog("active1.TXN"), style(1),
                 activeLog("/l/active2.TXN"), style(1), activeLog("")});
    EXPECT_EQ(next(true), 3000);
    EXPECT_STREQ(directory, "active1.TXN");
    EXPECT_TRUE(messages.hasTrace("getArchiveLog(): log path is invalid"));
    EXPECT_EQ(next(true), 3001);
    EXPECT_EQ(next(true), 3000);
    EXPECT_STREQ(file, "/l/active2.TXN");
    EXPECT_EQ(next(true), 3001) << "an empty path names no log";
}

TEST_F(LogArchivingTest, OnlyALogThatIsNoLongerWrittenIsMarkedArchived) {
    DWORD extent = 12;
    UNIVERSALNOTEID archive = kId;
    EXPECT_EQ(finishArchiveLog(&extent, &archive, TRUE), 3000);
    EXPECT_THAT(
        messages.logs(),
        ElementsAre(
            "finishArchiveLog(): Active transaction log backup. Skip NSFDoneArchivingLog call."));

    script.play({{"NSFDoneArchivingLog 1 16384 12"}, {"NSFDoneArchivingLog 1 16384 12", {1234}}});
    EXPECT_EQ(finishArchiveLog(&extent, &archive, FALSE), 3000);
    EXPECT_TRUE(messages.hasLog("Call NSFDoneArchivingLog: archive ID 00004321, Log number 12"));
    EXPECT_EQ(takeErrorText(), "");
    EXPECT_EQ(finishArchiveLog(&extent, &archive, FALSE), 1000);
    EXPECT_EQ(takeErrorText(), "Notes text 1234");
    EXPECT_TRUE(messages.hasLog("finishArchiveLog(): NSFDoneArchivingLog call failed: Notes text "
                                "1234"));
}

// A close after a start that found no library comes here with an empty table.
TEST(LogArchivingWithoutLibrary, ReportsInsteadOfCalling) {
    g_sQRTLN_Global = {};
    ASSERT_EQ(notes_api.NSFGetTransLogStyle.address(), nullptr);
    const MessageCapture messages;
    char buffer[kPathSize];
    DWORD number = 0;
    UNIVERSALNOTEID id = {};
    BOOL active = FALSE;
    EXPECT_EQ(endArchiveLogs(), 1000);
    EXPECT_EQ(beginArchiveLogs(), 1000);
    EXPECT_EQ(finishArchiveLog(&number, &id, FALSE), 1000);
    EXPECT_EQ(getArchiveLog(buffer, buffer, TRUE, &number, &id, &active), 1000);
    TYPE_DB_Error error;
    takeError(&error);
    EXPECT_STREQ(error.szDBErrorMsg, kRuntimeNotInitialized);
}

} // namespace
