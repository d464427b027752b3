// The questions about one database.
#include "qrt_lotus_notes/qrtln_n/database_probes.h"

#include <fcntl.h>
#include <limits>
#include <unistd.h>

#include "tests/interface/own_process.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

constexpr UNIVERSALNOTEID kDatabaseId = {{0x00000001, 0xAB}, {0x80000000, 0xFFFFFFFF}};
constexpr char kDatabase[] = "/data/a.nsf";

class DatabaseProbesTest : public NotesFloorTest {
  protected:
    DatabaseProbesTest() { setenv("TZ", "CET-1", 1); }
    ~DatabaseProbesTest() override { unsetenv("TZ"); }

    const Step open = {"NSFDbOpen L:/data/a.nsf", {.numbers = {7}}};
    const Step close = {"NSFDbClose 7"};
};

TEST_F(DatabaseProbesTest, ALockOfAnotherProcessMeansOpen) {
    BOOL isOpen = TRUE;
    EXPECT_EQ(isNotesDbOpen(folder.file("none.nsf").c_str(), &isOpen), 1000);
    EXPECT_FALSE(isOpen);
    const std::string file = folder.write("a.nsf");
    const int fd = ::open(file.c_str(), O_RDWR);
    for (const bool locked : {false, true}) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        ASSERT_TRUE(!locked || fcntl(fd, F_SETLK, &lock) == 0);
        inOwnProcess([&] {
            isOpen = !locked;
            EXPECT_EQ(isNotesDbOpen(file.c_str(), &isOpen), 3000);
            EXPECT_EQ(isOpen, locked);
        });
    }
    ::close(fd);
}

// With the day before the month, in the server's separators.
TEST_F(DatabaseProbesTest, ModifiedIsOnlyWhatTheServerSays) {
    constexpr time_t kTime = 1709644029;
    const struct {
        std::size_t failing; // step, counted from 0
        STATUS status;
        Steps after;
        const char* said;
    } rows[] = {
        {5, 0, {}, "Src Db: U:L:/data/a.nsf was modified since 05/03"},
        {5, 0, {}, "Src Db: U:L:/data/a.nsf entries 2"},
        {0, 1234, {}, "ConvertTextToTIMEDATE() failed, got error 4d2 (1234): Notes text 1234"},
        {1, 1234, {}, ""},
        {2, 1234, {}, "Src Db: U:L:/data/a.nsf got error 4d2 (1234): Notes text 1234"},
        {3, 572, {close}, "No Documents in U:L:/data/a.nsf have been modified since 05/03."},
        // Taken with its flags: no "nothing changed".
        {3, 0x8000 | 572, {close}, "NSFDbGetModifiedNoteTable() returned error 823c (33340)"},
    };
    script.tables[8] = {4, 8};
    script.settings.Flags = 0x0001 | 0x0020 | 0x0080;
    std::memcpy(script.settings.DateString, "12345", 5); // fills its field
    std::strcpy(script.settings.TimeString, ":");
    const Steps good = {{"ConvertTextToTIMEDATE 65 0 0 2 2 051234503123452024 14:07:09",
                         {.numbers = {4722900, 2460375}}},
                        {"ConvertTIMEDATEToText 4722900 2460375 80", {.text = "05/03"}},
                        open,
                        {"NSFDbGetModifiedNoteTable 7 32767 4722900 2460375", {.numbers = {8}}},
                        {"IDDestroyTable 8"},
                        close};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.said);
        messages.clear();
        script.play(failingAt(row.failing, row.status, good) + row.after);
        EXPECT_EQ(isNotesDbModified(kDatabase, kTime), row.status == 0);
        EXPECT_TRUE(said(row.said));
        EXPECT_EQ(takeErrorText(), "");
        script.expectPlayed();
    }
    // A time without a date, a name that does not fit.
    EXPECT_FALSE(isNotesDbModified(kDatabase, std::numeric_limits<time_t>::max()));
    EXPECT_FALSE(isNotesDbModified(std::string(1022, 'x').c_str(), 0));
    // Half an hour too late, as in another zone: said, and the server's time is what it works with.
    script.play({{good[0].call, {.numbers = {4722900 + 180000, 2460375}}},
                 {"ConvertTIMEDATEToText 4902900 2460375 80"},
                 {open.call, {.status = 1}}});
    EXPECT_FALSE(isNotesDbModified(kDatabase, kTime));
    EXPECT_TRUE(
        said("is asked since another time: the server reads 1709645829, meant is 1709644029"));
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    EXPECT_FALSE(isNotesDbModified(kDatabase, 0));
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
}

TEST_F(DatabaseProbesTest, LoggedTellsStyleAndIdentity) {
    constexpr int kUnchanged = DB_LOGGING_STYLE_NOLOG; // never an answer of this function
    const struct {
        DWORD logged, style; // as the server answers
        std::size_t step;    // the last one before the close
        STATUS status;       // of that step
        int result;
        BOOL isLogged;
        int loggingStyle;
        bool isKnown; // the identity
        const char* error;
        bool staysOpen = false;
    } rows[] = {
        {1, 1, 2, 0, 3000, TRUE, DB_LOGGING_STYLE_ARCH, true, ""},
        {1, 0, 2, 0, 3000, TRUE, DB_LOGGING_STYLE_CIRC, true, ""},
        // Linear: what is reported is the text of the call's status, and that is 0.
        {1, 2, 2, 0, 1000, TRUE, kUnchanged, true, "Notes text 0"},
        {0, 1, 1, 0, 3000, FALSE, kUnchanged, false, ""},
        {1, 1, 1, 1234, 1000, TRUE, kUnchanged, false, ""},
        {1, 1, 0, 1234, 1000, TRUE, kUnchanged, false, "Notes text 1234", true},
        // Logging not in effect: the database stays open.
        {1, 1, 2, 0x8000 | 5119, 3000, FALSE, kUnchanged, true, "Notes text 5119", true},
        {1, 1, 2, 1234, 1000, TRUE, kUnchanged, true, "Notes text 1234"},
    };
    BOOL logged = TRUE;
    auto style = static_cast<DB_LOGGING_STYLE>(kUnchanged);
    UNIVERSALNOTEID id;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.step) + " " + std::to_string(row.status));
        script.play(
            failingAt(row.step, row.status,
                      {open,
                       {"NSFDbGetLogInfo 7 0", {.numbers = {row.logged}, .id = kDatabaseId}},
                       {"NSFGetTransLogStyle", {.numbers = {row.style}}}}) +
            (row.staysOpen ? Steps{} : Steps{close}));
        logged = TRUE;
        style = static_cast<DB_LOGGING_STYLE>(kUnchanged);
        id = kDatabaseId;
        EXPECT_EQ(isDatabaseLogged(kDatabase, &logged, &style, &id), row.result);
        EXPECT_EQ(logged, row.isLogged);
        EXPECT_EQ(style, row.loggingStyle);
        EXPECT_EQ(std::memcmp(&id, &kDatabaseId, sizeof id) == 0, row.isKnown);
        EXPECT_EQ(takeErrorText(), row.error);
        script.expectPlayed();
    }
    EXPECT_EQ(isDatabaseLogged(std::string(1030, 'x').c_str(), &logged, &style, &id), 1000);
    EXPECT_THAT(takeErrorText(), testing::StartsWith("isDatabaseLogged(): File full path ["));
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    EXPECT_EQ(isDatabaseLogged(kDatabase, &logged, &style, &id), 1000);
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
}

// What the tests of the decision about a backup do not show: the native path, a distance that
// counts only when it is asked for, and a status that is taken with its flags.
TEST_F(DatabaseProbesTest, BackupNeededGoesByTheWholeAnswer) {
    const std::string call = "NSFIsNewBackupNeeded /data/a.nsf ";
    BOOL unanswered = TRUE;
    script.play({{call + "0", {.numbers = {5000}}},
                 {call + "65536", {.status = 5114}},
                 {call + "65536", {.status = 0x8000 | 5114, .numbers = {1}}}});
    EXPECT_FALSE(isBackupNeeded(kDatabase, 0, &unanswered) || unanswered);
    EXPECT_TRUE(isBackupNeeded(kDatabase, 65536, &unanswered) && !unanswered);
    EXPECT_TRUE(!isBackupNeeded(kDatabase, 65536, &unanswered) && unanswered);
    unanswered = FALSE;
    EXPECT_FALSE(isBackupNeeded(std::string(kPathSize, 'x').c_str(), 0, &unanswered));
    EXPECT_TRUE(unanswered);
}

} // namespace
