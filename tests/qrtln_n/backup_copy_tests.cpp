// The exact calls of the backup copy, and what each failure leaves behind.
#include "qrt_lotus_notes/qrtln_n/backup_copy.h"

#include <cstdint>

#include "qrt_lotus_notes/qrtln_n/copy_passes.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

constexpr UNIVERSALNOTEID kId = {{0x11111111, 0x22222222}, {0x44444444, 0x80000001}};

// Database 7, context 70, buffer 9, application of changes 90.
class BackupCopyTest : public NotesFloorTest {
  protected:
    BackupCopyTest() {
        script.memory[9].resize(32768);
        set(g_sQRTLN_Global.szNotesDataDirectory, "@/data/");
        set(g_sQRTLN_Global.szTmpDir, "@/tmp");
        useDatabase("mail/user.nsf", "content");
    }

    void useDatabase(const std::string& name, const std::string& content) {
        database = folder.write("data/" + name, content);
        copy = folder.file("tmp/" + name);
        size = static_cast<DWORD>(content.size());
        messages.clear();
    }

    // With a copy, or in place. The identity must be cleared.
    int prepare(bool copied) {
        id = kId;
        return copied ? PrepareOpenDbForBackup(database.c_str(), directory, &id)
                      : PrepareDbForBackup(database.c_str(), directory, &id);
    }

    // The whole preparation. In place the buffer is freed while it is locked; database and context
    // stay open.
    Steps preparation(bool copied) const {
        const Steps started = {{"NSFDbOpen L:" + database, {.numbers = {7}}},
                               {"NSFBackupStart 7 0", {.numbers = {70, size, 0}}}};
        const std::string changed = copied ? copy : database;
        const Steps applied = {
            {"NSFBackupStop 7 70"},
            {"NSFBackupGetChangeInfoSize 7 70 0", {.numbers = {4711, 3}}},
            {"NSFBackupStartApplyChangeInfo L:" + changed + " 0 4711 3", {.numbers = {90}}},
            {"NSFBackupGetNextChangeInfo 7 70 0 32768", {.text = "first"}},
            {"NSFBackupApplyNextChangeInfo 90 0 [first]"},
            {"NSFBackupGetNextChangeInfo 7 70 0 32768"},
            {"NSFBackupApplyNextChangeInfo 90 0 []"},
            {"NSFBackupEndApplyChangeInfo 90 0"}};
        return copied ? started + Steps{logInfo, alloc, lock} + applied +
                            Steps{end, unlock, free, close}
                      : started + Steps{alloc, lock, logInfo} + applied + Steps{free};
    }
    static constexpr std::size_t kStop = 5; // the number of its step, counted from 0

    const Step logInfo = {"NSFDbGetLogInfo 7 0", {.numbers = {1}, .id = kId}};
    const Step alloc = {"OSMemAlloc 32768 32768", {.numbers = {9}}};
    const Step lock = {"OSLockObject 9"};
    const Step unlock = {"OSUnlockObject 9"};
    const Step free = {"OSMemFree 9"};
    const Step end = {"NSFBackupEnd 7 70 0"};
    const Step abort = {"NSFBackupEnd 7 70 1"};
    const Step close = {"NSFDbClose 7"};

    std::string database;
    std::string copy;
    DWORD size = 0; // as the server tells it
    char directory[kPathSize] = "";
    UNIVERSALNOTEID id = {};
};

// The temporary directory may end in a delimiter; a name with two dots in it is no way upwards.
TEST_F(BackupCopyTest, CopiesOfEverySizeAreOnDiskAtTheStopAndExact) {
    copyText(g_sQRTLN_Global.szTmpDir, folder.file("tmp/").c_str());
    for (const std::size_t bytes : {0, 1, 32768, 32769, 200000}) {
        SCOPED_TRACE(bytes);
        std::string content(bytes, '\0');
        for (std::size_t i = 0; i < bytes; ++i) {
            content[i] = static_cast<char>(i % 251);
        }
        std::filesystem::remove(copy); // an existing copy would not be truncated
        useDatabase("mail/..a..nsf", content);
        size += 3; // what the file lacks is zeros, and said
        content += std::string(3, '\0');
        Steps steps = preparation(true);
        steps[kStop].answer.effect = [&] { EXPECT_EQ(folder.read("tmp/mail/..a..nsf"), content); };
        script.play(steps);
        EXPECT_EQ(prepare(true), 3000);
        EXPECT_EQ(directory, folder.file("tmp/mail"));
        EXPECT_EQ(folder.read("tmp/mail/..a..nsf"), content);
        EXPECT_TRUE(said("File size == " + std::to_string(size)));
        EXPECT_TRUE(said("Database file [U:L:" + database + "] is shorter than the size to copy"));
    }
}

TEST_F(BackupCopyTest, APreparationInPlaceLeavesDatabaseAndContextOpenUntilTheClose) {
    script.play(preparation(false));
    EXPECT_EQ(prepare(false), 3000);
    EXPECT_EQ(directory, folder.file("data/mail"));
    EXPECT_EQ(g_sQRTLN_Global.hCurrBackupContext, 70u);

    EXPECT_EQ(CloseDbBackup("/data/names.ncf"), 3000) << "no database";
    // The close ends both and only traces its failures; the record keeps the handles.
    script.play({end, close, {end.call, {.status = 11}}, {close.call, {.status = 12}}});
    EXPECT_EQ(CloseDbBackup(database.c_str()), 3000);
    EXPECT_TRUE(said("Closing database backup completed successfully"));
    EXPECT_EQ(CloseDbBackup(database.c_str()), 3000);
    EXPECT_TRUE(said("NSFBackupEnd() call FAILED: Notes text 11."));
    EXPECT_TRUE(said("NSFDbClose() call FAILED: Notes text 12."));
    EXPECT_EQ(takeErrorText(), "");
    EXPECT_EQ(g_sQRTLN_Global.hCurrDB, 7u);
}

TEST_F(BackupCopyTest, TheResultTellsHowTheDatabaseIsLogged) {
    const struct {
        const char* name;
        STATUS status;
        DWORD logged;
        int result;
        const char* said;
    } rows[] = {
        {"a.nsf", 0, 1, 3000, "] is logged, DBIID [F7777776]"},
        {"a.nsf", 0, 0, 2000, "] is not logged. Resulting backup file may not be recoverable!"},
        {"a.NTF", 0, 0, 3000, "a.NTF must not be logged."},
        {"a.nsf", 1234, 1, 2000, "(): NSFDbGetLogInfo failed: Notes text 1234"},
    };
    for (const auto& row : rows) {
        for (const bool copied : {true, false}) {
            SCOPED_TRACE(std::string(row.name) + row.said);
            useDatabase(row.name, "content");
            Steps steps = preparation(copied);
            NotesAnswer& answer = steps[copied ? 2 : 4].answer;
            answer.status = row.status;
            answer.numbers = {row.logged};
            script.play(steps);
            EXPECT_EQ(prepare(copied), row.result);
            const bool isKnown = row.status == 0 && row.logged != 0;
            const UNIVERSALNOTEID expected = isKnown ? kId : UNIVERSALNOTEID{};
            EXPECT_EQ(std::memcmp(&id, &expected, sizeof id), 0);
            EXPECT_EQ(takeErrorText(), "");
            EXPECT_TRUE(said(row.said));
        }
    }
}

// What fails while undoing never hides the first failure; the copy goes before the server is told
// that the backup is over.
TEST_F(BackupCopyTest, AFailedCallIsUndoneInTheReverseOrderAndReported) {
    const Step endApply = {"NSFBackupEndApplyChangeInfo 90 1"};
    const Step stop = {"NSFBackupStop 7 70"};
    const std::string ignored = "NSFBackupEndApplyChangeInfo LN C API call failed: Notes text 1234";
    const std::string noDatabase = "File U:L:" + database + " is not a database.";
    const struct {
        bool copied;
        std::size_t step; // that fails, counted from 0
        STATUS status;
        Steps after;
        std::string said = "Notes text 1234";
        int result = 1000;
    } rows[] = {
        {true, 0, 1234, {}},
        {true, 1, 513, {close}, "Notes text 513"},
        // A backup that somebody left on the database is ended.
        {true, 1, 0x4000 | 3748, {abort, close}, "Notes text 3748"},
        {true, 3, 1234, {abort, close}},
        {true, 4, 1234, {free, abort, close}, "cannot lock the working buffer"},
        {true, 5, 1234, {unlock, free, abort, close}},
        {true, 7, 1234, {unlock, free, abort, close}},
        {true, 8, 1234, {endApply, unlock, free, abort, close}},
        // Ignored by contract; the log line is what a careful host goes by.
        {true, 12, 1234, {end, unlock, free, close}, ignored, 3000},
        {false, 0, 1234, {}, "Notes text 1234 [U:L:" + database + "]"},
        // Only what the server itself calls no database is saved as a plain file.
        {false, 0, 513, {}, noDatabase, 3000},
        {false, 1, 513, {close}, "NSFBackupStart: " + noDatabase, 3000},
        {false, 0, 259, {}, "Notes text 513"},
        {false, 1, 3748, {abort, close}, "Notes text 3748"},
        {false, 2, 1234, {stop, abort, close}},
        {false, 8, 1234, {endApply, abort, close, free}},
    };
    for (const auto& row : rows) {
        const Steps good = preparation(row.copied);
        SCOPED_TRACE(good[row.step].call + " fails with " + std::to_string(row.status));
        messages.clear();
        std::filesystem::remove(copy);
        Steps after = row.after;
        for (Step& step : after) {
            step.answer.status = 99;
            step.answer.effect = [&] {
                EXPECT_TRUE(step.call != abort.call || !std::filesystem::exists(copy));
            };
        }
        script.play(failingAt(row.step, row.status, good) + after);
        g_sQRTLN_Global.hCurrDB = row.copied ? 0 : 5;
        EXPECT_EQ(prepare(row.copied), row.result);
        EXPECT_EQ(takeErrorText().empty(), row.result == 3000);
        EXPECT_TRUE(said(row.said));
        EXPECT_EQ(std::filesystem::exists(copy), row.copied && row.result == 3000);
        EXPECT_EQ(g_sQRTLN_Global.hCurrDB, 0u) << "a finish of the item has nothing to close";
        script.expectPlayed();
    }
    database += "x"; // is not there
    script.play({{"NSFDbOpen L:" + database, {.status = 259}}});
    EXPECT_EQ(prepare(false), 1000);
    EXPECT_EQ(takeErrorText(), "Notes text 259 [U:L:@/data/mail/user.nsfx]");
}

// The server hears once in a hundred chunks how far the copy has got; its answer does not count.
// What it cuts off meanwhile is zero until the changes are applied. A stop deletes the copy.
TEST_F(BackupCopyTest, ADatabaseCutOffDuringItsCopyIsCopiedInFullLength) {
    const std::string content(2 * 3276800 + 100, 'x');
    useDatabase("big.nsf", content);
    const Steps whole = preparation(true);
    const Steps marks = {
        {"NSFBackupSetHighWaterMark 7 70 3276800 0",
         {.status = 1234, .effect = [this] { std::filesystem::resize_file(database, 3276800); }}},
        {"NSFBackupSetHighWaterMark 7 70 6553600 0", {.effect = [] { requestStop(true); }}}};
    script.play(failingAt(kStop - 1, 0, whole) + Steps{marks[0], {marks[1].call}} +
                Steps(whole.begin() + kStop, whole.end()));
    EXPECT_EQ(prepare(true), 3000);
    const std::string copied = folder.read("tmp/big.nsf");
    EXPECT_EQ(copied.size(), content.size());
    EXPECT_EQ(copied.substr(0, 3276800), content.substr(0, 3276800));
    // The stream may have read ahead by its buffer, of 2 MiB.
    const std::size_t cut = 3276800 + 2097152;
    EXPECT_EQ(copied.substr(cut), std::string(content.size() - cut, '\0'));

    script.play(failingAt(kStop - 1, 0, whole) + marks + Steps{unlock, free, abort, close});
    EXPECT_EQ(prepare(true), 1000);
    EXPECT_EQ(takeErrorText(), "Notes text 1009");
    EXPECT_FALSE(std::filesystem::exists(copy));
    requestStop(false);
}

TEST_F(BackupCopyTest, APathThatIsNoPlaceOfACopyIsRefusedBeforeAnyCall) {
    for (const auto& [path, tmpDir] : std::vector<std::pair<std::string, std::string>>{
             {"name.nsf", "/t"},
             {"/a.nsf", "/t"}, // shorter than the data directory
             {"@/data/mail/../../../etc/a.nsf", "/t"},
             {"@/data/mail/..", "/t"},
             {"@/data/" + std::string(950, 'x'), "/" + std::string(100, 'y')},
             {"/" + std::string(1024, 'x') + "\xC3", "/t"},
             {"@/data/mail/user.nsf", "@/data"}}) {
        set(g_sQRTLN_Global.szTmpDir, tmpDir);
        database = full(path);
        EXPECT_EQ(prepare(true), 1000);
        EXPECT_THAT(takeErrorText(),
                    testing::StartsWith("PrepareOpenDbForBackup(): File full path [U:L:" +
                                        path.substr(0, 100)));
    }
    g_sQRTLN_Global.szTmpDir[0] = '\0'; // what is below "/" is not ours
    EXPECT_EQ(prepare(true), 1000);
    EXPECT_THAT(takeErrorText(),
                testing::StartsWith("PrepareOpenDbForBackup(): there is no TMP_DIR"));
    for (const std::string& path : {std::string("name.nsf"), std::string(1100, '/')}) {
        EXPECT_EQ(PrepareDbForBackup(path.c_str(), directory, &id), 1000);
        EXPECT_THAT(takeErrorText(),
                    testing::StartsWith("PrepareDbForBackup(): file full path U:L:"));
    }
    EXPECT_EQ(folder.read("data/mail/user.nsf"), "content");
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    for (const bool copied : {true, false}) {
        g_sQRTLN_Global.hCurrDB = 7;
        EXPECT_EQ(CloseDbBackup("/data/a.nsf"), 3000);
        EXPECT_EQ(prepare(copied), 1000);
        EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
    }
}

TEST_F(BackupCopyTest, WhatTheCopyDidNotCreateIsNotItsToDelete) {
    folder.makeDirectory("tmp/mail/user.nsf");
    for (const int error : {EISDIR, ENOENT}) {
        script.play(failingAt(2, 0, preparation(true)) + Steps{abort, close});
        EXPECT_EQ(prepare(true), 1000);
        EXPECT_EQ(takeErrorText(), std::strerror(error));
        EXPECT_TRUE(std::filesystem::exists(copy));
        std::filesystem::remove(database);
    }
    useDatabase("box/mail/user.nsf", "content");
    const std::string box = folder.write("tmp/box", "a file in the place of the copy's folder");
    script.play(failingAt(2, 0, preparation(true)) + Steps{abort, close});
    EXPECT_EQ(prepare(true), 1000);
    EXPECT_EQ(takeErrorText(), std::strerror(EEXIST));
    EXPECT_TRUE(std::filesystem::is_regular_file(box));
}

TEST(CopyPasses, AddUpToTheWholeSize) {
    const std::vector<std::vector<std::uint64_t>> rows = {
        {0},
        {0xFFFFFFFF, 0xFFFFFFFF},
        // The low half leaves no room for the byte that the second pass lacks.
        {0x1FFFFFFFF, 1, 0xFFFFFFFF, 0xFFFFFFFF},
        {0x2FFFFFFFE, 2, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFE}};
    for (const auto& row : rows) {
        CopyPasses passes(static_cast<DWORD>(row[0]), static_cast<DWORD>(row[0] >> 32));
        std::vector<std::uint64_t> lengths = {row[0]};
        for (DWORD pass = passes.first(); pass != 0; pass = passes.next()) {
            lengths.push_back(pass);
        }
        EXPECT_EQ(lengths, row) << "the size and its passes";
    }
    CopyPosition position;
    for (const DWORD count : {0xFFFFFFF0U, 0x20U, 0xFFFFFFFFU, 0x7U}) {
        position.advance(count);
    }
    EXPECT_EQ(position.high(), 2u);
    EXPECT_EQ(position.low(), 0x16u);
}

} // namespace
