// The questions about one database.
#include "qrt_lotus_notes/qrtln_n/database_probes.h"

#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

#include <gmock/gmock.h>

#include "common/bounded_text.h"
#include "tests/interface/own_process.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

using testing::ElementsAre;

constexpr UNIVERSALNOTEID kId = {{0x00000001, 0xAB}, {0x80000000, 0xFFFFFFFF}};

// The time zone of the process for the lifetime.
class TimeZone {
  public:
    explicit TimeZone(const char* zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        unsetenv("TZ");
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;
};

class DatabaseProbesTest : public NotesFloorTest {};

TEST_F(DatabaseProbesTest, ALockOfAnotherProcessMeansOpen) {
    const std::string file = folder.write("a.nsf", std::string(200, 'x'));
    g_sQRTLN_Global.bNotesInitialized = FALSE; // the probe needs no runtime
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_start = 100; // any part of the file counts
    lock.l_len = 1;
    const int fd = open(file.c_str(), O_RDWR);
    for (const bool locked : {true, false}) {
        lock.l_type = locked ? F_WRLCK : F_UNLCK;
        ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
        inOwnProcess([&] {
            BOOL open = !locked;
            EXPECT_EQ(isNotesDbOpen(file.c_str(), &open), 3000);
            EXPECT_EQ(open, locked);
            EXPECT_EQ(takeErrorText(), "");
        });
    }
    close(fd);
    EXPECT_EQ(folder.read("a.nsf"), std::string(200, 'x'));
}

TEST_F(DatabaseProbesTest, AFileThatCannotBeOpenedOrLockedIsReported) {
    BOOL open = TRUE;
    EXPECT_EQ(isNotesDbOpen(folder.file("none.nsf").c_str(), &open), 1000);
    EXPECT_FALSE(open);
    TYPE_DB_Error error;
    takeError(&error);
    EXPECT_EQ(error.ulDBErrorCode, static_cast<unsigned long>(ENOENT));
    EXPECT_STREQ(error.szDBErrorType, "WIN32 API");

    open = TRUE;
    EXPECT_EQ(isNotesDbOpen(folder.path().c_str(), &open), 1000);
    EXPECT_FALSE(open);
}

TEST_F(DatabaseProbesTest, ModifiedAsksWithTheDayBeforeTheMonthInTheServersSeparators) {
    const TimeZone zone("CET-1");
    const struct {
        const char* title;
        WORD flags;
        const char* date;
        const char* time;
        const char* text;
    } rows[] = {
        {"German", 0x0001 | 0x0020, ".", ":", "05.03.2024 14:07:09"},
        {"ISO", 0x0080, "-", ":", "05-03-2024 14:07:09"},
        {"separators that fill their fields", 0x0040, "12345", "abcde",
         "051234503123452024 14abcde07abcde09"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        messages.clear();
        script.settings = {};
        script.settings.Flags = row.flags;
        std::memcpy(script.settings.DateString, row.date, strnlen(row.date, 5));
        std::memcpy(script.settings.TimeString, row.time, strnlen(row.time, 5));
        const int flags = (row.flags & ~0x00A0) | 0x0040;
        script.play({
            {"ConvertTextToTIMEDATE " + std::to_string(flags) + " 0 0 2 2 " + row.text,
             {.numbers = {4722900, 2460375}}},
            {"ConvertTIMEDATEToText 4722900 2460375 80", {.text = "05/03"}},
            {"NSFDbOpen L:/data/a.nsf", {.numbers = {7}}},
            {"NSFDbGetModifiedNoteTable 7 32767 4722900 2460375", {.numbers = {8}}},
            {"IDEntries 8", {.numbers = {12}}},
            {"IDDestroyTable 8"},
            {"NSFDbClose 7"},
        });
        EXPECT_TRUE(isNotesDbModified("/data/a.nsf", 1709644029));
        EXPECT_THAT(messages.logs(), ElementsAre("Src Db: U:L:/data/a.nsf was modified since 05/03",
                                                 "Src Db: U:L:/data/a.nsf entries 12"));
        EXPECT_TRUE(messages.hasTrace("ConvertTextToTIMEDATE(" + std::string(row.text) + ")"));
    }
}

TEST_F(DatabaseProbesTest, EveryOtherAnswerMeansNotModified) {
    const TimeZone zone("UTC0");
    const Step convert = {"ConvertTextToTIMEDATE 64 0 0 2 2 01.01.1970 00:00:00",
                          {.numbers = {0, 2440588}}};
    const Step back = {"ConvertTIMEDATEToText 0 2440588 80", {.text = std::string(80, 't')}};
    const Step open = {"NSFDbOpen L:/data/a.nsf", {.numbers = {7}}};
    const Step table = {"NSFDbGetModifiedNoteTable 7 32767 0 2440588", {.numbers = {8}}};
    const Step close = {"NSFDbClose 7"};
    const std::vector<Step> good = {convert, back, open, table, close};
    const std::string name = "Src Db: U:L:/data/a.nsf ";
    const struct {
        std::size_t failing;
        STATUS status;
        std::string log;
    } rows[] = {
        {0, 1234, "ConvertTextToTIMEDATE() failed, got error 4d2 (1234): Notes text 1234"},
        {1, 1234, ""},
        {2, 1234, name + "got error 4d2 (1234): Notes text 1234"},
        {3, 572,
         "Src Db: No Documents in U:L:/data/a.nsf have been modified since " +
             std::string(80, 't') + "."},
        // Taken with its flags: no "nothing changed".
        {3, 0x8000 | 572,
         name + "NSFDbGetModifiedNoteTable() returned error 823c (33340): Notes text 572"},
    };
    std::strcpy(script.settings.DateString, ".");
    std::strcpy(script.settings.TimeString, ":");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        messages.clear();
        std::vector<Step> steps(good.begin(), good.begin() + static_cast<long>(row.failing + 1));
        steps.back().answer.status = row.status;
        if (row.failing == 3) {
            steps.push_back(close);
        }
        script.play(steps);
        EXPECT_FALSE(isNotesDbModified("/data/a.nsf", 0));
        EXPECT_EQ(messages.logs(), std::vector<std::string>(row.log.empty() ? 0 : 1, row.log));
        EXPECT_EQ(takeErrorText(), "");
    }

    // A time without a date, a name that does not fit, no runtime.
    EXPECT_FALSE(isNotesDbModified("/data/a.nsf", std::numeric_limits<time_t>::max()));
    EXPECT_FALSE(isNotesDbModified(std::string(1022, 'x').c_str(), 0));
    // Half an hour too late, as in another zone: said, and the server's time is what it works with.
    messages.clear();
    script.play({{convert.call, {.numbers = {180000, 2440588}}},
                 {"ConvertTIMEDATEToText 180000 2440588 80", {.text = "t"}},
                 {open.call, {.status = 1}}});
    EXPECT_FALSE(isNotesDbModified("/data/a.nsf", 0));
    EXPECT_THAT(messages.logs(),
                ElementsAre(name + "is asked since another time: the server reads 1800, meant is 0 "
                                   "(seconds since 1970)",
                            name + "got error 1 (1): Notes text 1"));

    g_sQRTLN_Global.bNotesInitialized = FALSE;
    EXPECT_FALSE(isNotesDbModified("/data/a.nsf", 0));
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
}

TEST_F(DatabaseProbesTest, LoggedTellsStyleAndIdentity) {
    const Step open = {"NSFDbOpen L:/data/a.nsf", {.numbers = {7}}};
    const Step logged = {"NSFDbGetLogInfo 7 0", {.numbers = {1}, .id = kId}};
    const Step unlogged = {"NSFDbGetLogInfo 7 0", {.numbers = {0}, .id = kId}};
    const Step close = {"NSFDbClose 7"};
    const auto style = [](DWORD value) {
        return Step{"NSFGetTransLogStyle", {.numbers = {value}}};
    };
    const auto fails = [](Step step, STATUS status) {
        step.answer.status = status;
        return step;
    };
    const Step noStyle = fails(style(0), 0x8000 | 5119);
    const Step failed = fails(style(0), 1234);
    constexpr int kUnchanged = DB_LOGGING_STYLE_NOLOG; // never an answer of this function
    const struct {
        const char* title;
        std::vector<Step> steps;
        int result;
        BOOL logged;
        int style;
        bool identity;
        const char* error;
    } rows[] = {
        {"archive", {open, logged, style(1), close}, 3000, TRUE, 1, true, ""},
        {"circular", {open, logged, style(0), close}, 3000, TRUE, 2, true, ""},
        // What is reported is the text of the call's status, and that is 0.
        {"linear", {open, logged, style(2), close}, 1000, TRUE, kUnchanged, true, "Notes text 0"},
        {"not logged", {open, unlogged, close}, 3000, FALSE, kUnchanged, false, ""},
        {"no log info", {open, fails(logged, 1234), close}, 1000, TRUE, kUnchanged, false, ""},
        {"not opened", {fails(open, 1234)}, 1000, TRUE, kUnchanged, false, "Notes text 1234"},
        // Logging not in effect: the database stays open.
        {"5119", {open, logged, noStyle}, 3000, FALSE, kUnchanged, true, "Notes text 5119"},
        {"1234", {open, logged, failed, close}, 1000, TRUE, kUnchanged, true, "Notes text 1234"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        script.play(row.steps);
        BOOL answer = TRUE;
        auto loggingStyle = static_cast<DB_LOGGING_STYLE>(kUnchanged);
        UNIVERSALNOTEID id = kId;
        EXPECT_EQ(isDatabaseLogged("/data/a.nsf", &answer, &loggingStyle, &id), row.result);
        EXPECT_EQ(answer, row.logged);
        EXPECT_EQ(loggingStyle, row.style);
        EXPECT_EQ(std::memcmp(&id, &kId, sizeof id) == 0, row.identity);
        EXPECT_EQ(takeErrorText(), row.error);
    }
    EXPECT_TRUE(messages.hasTrace("isDatabaseLogged: Database [U:L:/data/a.nsf] is logged, DBIID "
                                  "00000001-000000AB 80000000FFFFFFFF"));

    BOOL answer = TRUE;
    DB_LOGGING_STYLE loggingStyle = DB_LOGGING_STYLE_ARCH;
    UNIVERSALNOTEID id;
    const std::string untranslatable = "/" + std::string(1024, 'x') + "\xC3";
    EXPECT_EQ(isDatabaseLogged(untranslatable.c_str(), &answer, &loggingStyle, &id), 1000);
    EXPECT_TRUE(takeErrorText().starts_with("isDatabaseLogged(): File full path ["));
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    EXPECT_EQ(isDatabaseLogged("/data/a.nsf", &answer, &loggingStyle, &id), 1000);
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
}

TEST_F(DatabaseProbesTest, BackupNeededPassesTheNativePathAndTrustsTheSpanOnlyWhenAsked) {
    const struct {
        DWORD span;
        STATUS status;
        DWORD needed;
        BOOL answer;
        BOOL unanswered = FALSE;
    } rows[] = {
        {0, 5114, 0, TRUE},
        {65536, 5114, 0, TRUE},
        {0, 1234, 1, FALSE, TRUE},
        {65536, 1234, 1, FALSE, TRUE},
        {0, 0, 0, FALSE},
        {0, 0, 5000, FALSE},
        {65536, 0, 0, FALSE},
        {65536, 0, 1, TRUE},
        {65536, 0x8000 | 5114, 0, FALSE, TRUE}, // taken with its flags
    };
    for (const auto& row : rows) {
        script.play({{"NSFIsNewBackupNeeded /data/a.nsf " + std::to_string(row.span),
                      {.status = row.status, .numbers = {row.needed}}}});
        BOOL bUnanswered = !row.unanswered;
        EXPECT_EQ(isBackupNeeded("/data/a.nsf", row.span, &bUnanswered), row.answer)
            << row.span << ' ' << row.status << ' ' << row.needed;
        EXPECT_EQ(bUnanswered, row.unanswered) << row.span << ' ' << row.status;
    }
    BOOL bUnanswered = FALSE;
    EXPECT_FALSE(isBackupNeeded(std::string(kPathSize, 'x').c_str(), 0, &bUnanswered));
    EXPECT_TRUE(bUnanswered);
    EXPECT_EQ(takeErrorText(), "");
}

} // namespace
