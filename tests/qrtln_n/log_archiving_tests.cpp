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

TEST_F(LogArchivingTest, TheSystemsStyleIsArchiveCircularOrUnknown) {
    const struct {
        Step step;
        int result;
        int style;
        const char* error;
    } rows[] = {
        {style(0), 3000, DB_LOGGING_STYLE_CIRC, ""},
        {style(1), 3000, DB_LOGGING_STYLE_ARCH, ""},
        {style(2), 3000, DB_LOGGING_STYLE_CIRC, ""}, // linear counts as circular
        {style(3), 1000, 0,
         "getSystemLogStyle(): NSFGetTransLogStyle returned neither ARCHIVE nor CIRCULAR style."},
        {style(1, 1234), 1000, 0, "Notes text 1234"},
        {style(1, 5119), 1000, DB_LOGGING_STYLE_NOLOG, "Notes text 5119"},
    };
    for (const auto& row : rows) {
        script.play({row.step});
        auto answer = static_cast<DB_LOGGING_STYLE>(0);
        EXPECT_EQ(getSystemLogStyle(&answer), row.result);
        EXPECT_EQ(answer, row.style);
        EXPECT_EQ(takeErrorText(), row.error);
    }
}

TEST_F(LogArchivingTest, ASessionBeginsOnlyWhereLogsAreArchived) {
    const char* const requires_archive =
        "Archiving logs requires 'ARCHIVE' style transaction logging";
    const Step begin = {"NSFBeginArchivingLogs"};
    const struct {
        const char* title;
        std::vector<Step> steps;
        int result;
        std::string error;
        std::vector<std::string> logs; // without the reports of errors
    } rows[] = {
        {"archive", {style(1), begin}, 3000, "", {"Call NSFBeginArchivingLogs()"}},
        // An unknown style is left to the server.
        {"unknown style", {style(7), begin}, 3000, "", {"Call NSFBeginArchivingLogs()"}},
        {"circular",
         {style(0)},
         11,
         requires_archive,
         {"Lotus Notes has circular logging style enabled"}},
        {"linear",
         {style(2)},
         11,
         requires_archive,
         {"Lotus Notes has linear logging style enabled"}},
        {"no logging",
         {style(0, 5119)},
         14,
         "Notes text 5119",
         {"Notes text 5119", "beginArchiveLogs(): Transactional logging is not in effect."}},
        {"style fails", {style(0, 1234)}, 1000, "Notes text 1234", {"Notes text 1234"}},
        {"begin fails",
         {style(1), {begin.call, {.status = 1234}}},
         1000,
         "Notes text 1234",
         {"Call NSFBeginArchivingLogs()",
          "beginArchiveLogs(): NSFBeginArchivingLogs() failed with 1234", "Notes text 1234"}},
        // A session that was left open is ended, so that the next try succeeds.
        {"archiving in progress",
         {style(1), {begin.call, {.status = 3758}}, style(1), {"NSFEndArchivingLogs"}},
         1000,
         "Notes text 3758",
         {"Call NSFBeginArchivingLogs()",
          "beginArchiveLogs(): NSFBeginArchivingLogs() failed with 3758", "Notes text 3758",
          "beginArchiveLogs(): NSFBeginArchivingLogs() failed with "
          "ERR_TRANSLOG_ARCHIVE_IN_PROGRESS",
          "Call NSFEndArchivingLogs()"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        messages.clear();
        script.play(row.steps);
        EXPECT_EQ(QRTLN_InitArchiveLogs(), row.result);
        EXPECT_EQ(takeErrorText(), row.error);
        std::vector<std::string> logs;
        for (const std::string& text : messages.logs()) {
            if (text.rfind("DB_ErrHandler: ", 0) != 0) {
                logs.push_back(text);
            }
        }
        EXPECT_EQ(logs, row.logs);
        // Whatever the cause, the style is named too.
        EXPECT_EQ(messages.hasLog(std::string("DB_ErrHandler: ") + requires_archive),
                  row.result != 3000);
    }
}

TEST_F(LogArchivingTest, ASessionEndsWhereLogsAreArchived) {
    const struct {
        const char* title;
        std::vector<Step> steps;
        int result;
        std::string error;
        std::string log;
    } rows[] = {
        {"archive", {style(1), {"NSFEndArchivingLogs"}}, 3000, "", "Call NSFEndArchivingLogs()"},
        {"circular",
         {style(0)},
         11,
         "",
         "endArchiveLogs(): Log style is CIRCULAR - therefor skip NSFEndArchivingLogs()"},
        {"linear",
         {style(2)},
         11,
         "",
         "endArchiveLogs(): Log style is CIRCULAR - therefor skip NSFEndArchivingLogs()"},
        {"no logging",
         {style(0, 5119)},
         3000,
         "Notes text 5119",
         "endArchiveLogs(): Getting system log style failed"},
        {"style fails",
         {style(0, 1234)},
         1000,
         "Notes text 1234",
         "endArchiveLogs(): Getting system log style failed"},
        {"another archiver",
         {style(1), {"NSFEndArchivingLogs", {.status = 3758}}},
         1000,
         "Notes text 3758",
         "endArchiveLogs(): Another process is currently archiving logs. (3758)"},
        {"end fails",
         {style(1), {"NSFEndArchivingLogs", {.status = 1234}}},
         1000,
         "Notes text 1234",
         "endArchiveLogs(): NSFEndArchivingLogs() failed with (1234)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        messages.clear();
        script.play(row.steps);
        EXPECT_EQ(endArchiveLogs(), row.result);
        EXPECT_EQ(takeErrorText(), row.error);
        EXPECT_TRUE(messages.hasLog(row.log));
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
         {.status = 5086, .numbers = {7}, .text = "/logs/S7.TXN", .id = kId}},
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
                            "Archive ID 00004321, Log number 6, log path [S6.TXN]",
                            "Back up active archive ID 00004321, Log number 7, log path "
                            "[/logs/S7.TXN]"));
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

TEST_F(LogArchivingTest, WhatTheRequestAnswersWithoutALogDependsOnStyleAndOperation) {
    const std::vector<Step> failing = {style(1), {"NSFGetFirstLogToArchive", {.status = 1234}}};
    const struct {
        const char* title;
        DB_OPERATION_TYPE type;
        DB_OPERATION_LEVEL level;
        std::vector<Step> steps;
        int result;
    } rows[] = {
        {"circular", DB_TYPE_BCK, DB_LEVEL_INCR, {style(0)}, 11},
        {"linear", DB_TYPE_BCK, DB_LEVEL_FULL, {style(2)}, 11},
        {"no logging", DB_TYPE_BCK, DB_LEVEL_INCR, {style(0, 5119)}, 14},
        {"style fails, full", DB_TYPE_BCK, DB_LEVEL_FULL, {style(0, 1234)}, 14},
        {"style fails, copy", DB_TYPE_BCK, DB_LEVEL_COPY, {style(0, 1234)}, 14},
        {"style fails, differential", DB_TYPE_BCK, DB_LEVEL_DIFF, {style(0, 1234)}, 1000},
        {"style unknown, incremental", DB_TYPE_BCK, DB_LEVEL_INCR, {style(3)}, 1000},
        {"style fails, restore", DB_TYPE_RST, DB_LEVEL_FULL, {style(0, 1234)}, 1000},
        {"the log fails", DB_TYPE_BCK, DB_LEVEL_FULL, failing, 1000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        g_sQRTLN_Global.eI_OperationType = row.type;
        g_sQRTLN_Global.eI_OperationLevel = row.level;
        script.play(row.steps);
        EXPECT_EQ(next(true), row.result);
        EXPECT_FALSE(active);
        EXPECT_STREQ(file, "unchanged");
        takeErrorText();
    }
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
