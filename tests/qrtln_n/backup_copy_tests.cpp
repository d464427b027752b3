// The exact calls of the backup copy, and what each failure leaves behind.
#include "qrt_lotus_notes/qrtln_n/backup_copy.h"

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <numeric>
#include <sys/resource.h>
#include <unistd.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_n/copy_passes.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

constexpr UNIVERSALNOTEID kId = {{0x11111111, 0x22222222}, {0x44444444, 0x80000001}};
constexpr UNIVERSALNOTEID kNoId = {};

bool operator==(const UNIVERSALNOTEID& a, const UNIVERSALNOTEID& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

std::size_t openFiles() {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

// Files may grow to so many bytes while it lives; a longer write fails like one to a full disk.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) : m_signal(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_former);
        const rlimit limit = {bytes, m_former.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_former);
        std::signal(SIGXFSZ, m_signal);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    void (*m_signal)(int);
    rlimit m_former = {};
};

std::string contentOf(std::size_t size) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        content[i] = static_cast<char>((i / 251) ^ i);
    }
    return content;
}

class BackupCopyTest : public NotesFloorTest {
  protected:
    BackupCopyTest() {
        useDatabase("mail/user.nsf", contentOf(40000));
        copyText(g_sQRTLN_Global.szNotesDataDirectory, folder.file("data/").c_str());
        copyText(g_sQRTLN_Global.szTmpDir, folder.makeDirectory("tmp").c_str());
    }

    void useDatabase(const std::string& name, const std::string& content) {
        database = folder.write("data/" + name, content);
        copyName = "tmp/" + name;
        size = static_cast<DWORD>(content.size());
    }

    int prepareOpen() {
        id = kId; // must be cleared
        return PrepareOpenDbForBackup(database.c_str(), directory, &id);
    }
    int prepareInPlace() {
        id = kId;
        return PrepareDbForBackup(database.c_str(), directory, &id);
    }

    // The steps of a preparation, with database 7, context 70, buffer 9 and apply context 90.
    Step open() const { return {"NSFDbOpen L:" + database, {.numbers = {7}}}; }
    Step start() const { return {"NSFBackupStart 7 0", {.numbers = {70, size, 0}}}; }
    Step logInfo(DWORD logged = 1) const {
        return {"NSFDbGetLogInfo 7 0", {.numbers = {logged}, .id = kId}};
    }
    Step alloc() const { return {"OSMemAlloc 32768 32768", {.numbers = {9}}}; }
    Step lock() const { return {"OSLockObject 9"}; }
    Step stop() const { return {"NSFBackupStop 7 70"}; }
    Step infoSize() const { return {"NSFBackupGetChangeInfoSize 7 70 0", {.numbers = {4711, 3}}}; }
    Step startApply(const std::string& path) const {
        return {"NSFBackupStartApplyChangeInfo L:" + path + " 0 4711 3", {.numbers = {90}}};
    }
    Step fetch(const std::string& data) const {
        return {"NSFBackupGetNextChangeInfo 7 70 0 32768", {.text = data}};
    }
    Step apply(const std::string& data) const {
        return {"NSFBackupApplyNextChangeInfo 90 0 " + std::to_string(data.size()) + " [" + data +
                "]"};
    }
    Step endApply(int flag) const {
        return {"NSFBackupEndApplyChangeInfo 90 " + std::to_string(flag)};
    }
    Step unlock() const { return {"OSUnlockObject 9"}; }
    Step free() const { return {"OSMemFree 9"}; }
    Step end(int option) const { return {"NSFBackupEnd 7 70 " + std::to_string(option)}; }
    Step close() const { return {"NSFDbClose 7"}; }

    std::vector<Step> untilCopied(DWORD logged = 1) const {
        return {open(), start(), logInfo(logged), alloc(), lock()};
    }
    std::vector<Step> appliedTo(const std::string& path) const {
        return {stop(),       infoSize(),   startApply(path), fetch("first"), apply("first"),
                fetch("two"), apply("two"), fetch(""),        apply(""),      endApply(0)};
    }
    std::vector<Step> undoOfCopy() const { return {unlock(), free(), end(1), close()}; }

    std::vector<Step> wholeCopy(DWORD logged = 1) const {
        return untilCopied(logged) + appliedTo(folder.file(copyName)) + closing();
    }
    std::vector<Step> closing() const { return {end(0), unlock(), free(), close()}; }
    std::vector<Step> inPlace() const {
        return std::vector<Step>{open(), start(), alloc(), lock(), logInfo()} + appliedTo(database);
    }

    // Nothing of the copy is left, the database is untouched.
    void expectNothingLeft() {
        EXPECT_FALSE(folder.exists(copyName));
        EXPECT_TRUE(std::filesystem::exists(database));
        EXPECT_EQ(openFiles(), filesBefore);
    }

    std::size_t filesBefore = openFiles();
    std::string database;
    std::string copyName;
    DWORD size = 0;
    char directory[kPathSize] = "";
    UNIVERSALNOTEID id = {};
};

TEST_F(BackupCopyTest, AnOpenDatabaseIsCopiedAndTheChangesAreAppliedToTheClosedCopy) {
    std::vector<Step> steps = wholeCopy();
    steps[untilCopied().size()].answer.effect = [this] {
        EXPECT_EQ(folder.read(copyName), contentOf(size)) << "the copy is not on disk at the stop";
    };
    script.play(steps);
    EXPECT_EQ(prepareOpen(), 3000);
    EXPECT_EQ(directory, folder.file("tmp/mail"));
    EXPECT_TRUE(id == kId);
    EXPECT_EQ(folder.read(copyName), contentOf(size));
    EXPECT_EQ(openFiles(), filesBefore);
    EXPECT_EQ(takeErrorText(), "");
    EXPECT_TRUE(messages.hasLog("PrepareOpenDbForBackup: Database [U:L:" + database +
                                "] is logged, DBIID [F7777776]"));
    EXPECT_TRUE(messages.hasTrace("PrepareOpenDbForBackup(): File size == 40000"));
}

TEST_F(BackupCopyTest, TheResultTellsHowTheDatabaseIsLogged) {
    const struct {
        const char* name;
        STATUS status;
        DWORD logged;
        int result;
        UNIVERSALNOTEID id;
        const char* trace;
    } rows[] = {
        {"a.nsf", 0, 0, 2000, kNoId,
         "PrepareOpenDbForBackup(): Database [U:L:%] is not logged. Resulting backup file may not "
         "be recoverable!"},
        {"a.NTF", 0, 0, 3000, kNoId,
         "PrepareOpenDbForBackup(): Template U:L:% must not be logged."},
        {"a.ntf", 0, 1, 3000, kId, "PrepareOpenDbForBackup(): File size == 7"},
        {"a.nsf", 1234, 1, 2000, kNoId,
         "PrepareOpenDbForBackup(): NSFDbGetLogInfo failed: Notes text 1234 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.trace);
        messages.clear();
        useDatabase(row.name, "content");
        std::vector<Step> steps = wholeCopy(row.logged);
        steps[2].answer.status = row.status;
        script.play(steps);
        EXPECT_EQ(prepareOpen(), row.result);
        EXPECT_TRUE(id == row.id);
        EXPECT_EQ(takeErrorText(), "");
        EXPECT_TRUE(messages.logs().empty() || row.id == kId);
        std::string trace = row.trace;
        if (const std::size_t at = trace.find('%'); at != std::string::npos) {
            trace.replace(at, 1, database);
        }
        EXPECT_TRUE(messages.hasTrace(trace)) << trace;
    }
}

// Each call of a preparation fails once. What follows is undone in the reverse order; what fails
// while undoing never hides the first failure.
TEST_F(BackupCopyTest, EveryFailedCallOfAPreparationIsUndoneAndReported) {
    struct Row {
        std::vector<std::size_t> steps; // that fail, counted from 0
        STATUS status;
        std::vector<Step> undo;
    };
    const std::vector<Row> ofCopy = {
        {{0}, 1234, {}},
        {{1}, 1234, {close()}},
        {{1}, 513, {close()}},
        {{1}, 0x4000 | 3748, {end(1), close()}},
        {{3}, 1234, {end(1), close()}},
        {{4}, 1234, {free(), end(1), close()}},
        {{5, 6, 7}, 1234, undoOfCopy()},
        {{8, 9, 10, 11, 12, 13}, 1234, {endApply(1), unlock(), free(), end(1), close()}},
    };
    const std::vector<Row> ofInPlace = {
        {{0}, 1234, {}},
        {{1}, 1234, {close()}},
        {{1}, 3748, {end(1), close()}},
        {{2}, 1234, {stop(), end(1), close()}},
        {{5, 6, 7}, 1234, {end(1), close(), free()}},
        {{8, 9, 12, 13}, 1234, {endApply(1), end(1), close(), free()}},
    };
    for (const bool copied : {true, false}) {
        const std::vector<Step> good = copied ? wholeCopy() : inPlace();
        for (const Row& row : copied ? ofCopy : ofInPlace) {
            for (const std::size_t failing : row.steps) {
                SCOPED_TRACE(good[failing].call + " fails with " + std::to_string(row.status));
                std::vector<Step> steps(good.begin(),
                                        good.begin() + static_cast<long>(failing + 1));
                steps.back().answer.status = row.status;
                script.play(steps);
                for (Step step : row.undo) {
                    step.answer.status = 99;
                    // The copy goes before the server is told that the backup is over.
                    if (step.call == end(1).call && (row.status & 0x3FFF) != 3748) {
                        step.answer.effect = [this] { EXPECT_FALSE(folder.exists(copyName)); };
                    }
                    script.play({step});
                }
                g_sQRTLN_Global.hCurrDB = copied ? 0 : 5;
                EXPECT_EQ(copied ? prepareOpen() : prepareInPlace(), 1000);
                std::string text = "Notes text " + std::to_string(row.status & 0x3FFF);
                if (copied && failing == 4) {
                    text = "cannot lock the working buffer";
                } else if (!copied && failing == 0) {
                    text += " [U:L:" + database + "]";
                }
                EXPECT_EQ(takeErrorText(), text);
                expectNothingLeft();
                // A finish of the failed item has nothing to close.
                EXPECT_EQ(CloseDbBackup(database.c_str()), 3000);
                EXPECT_EQ(g_sQRTLN_Global.hCurrDB, 0u);
            }
        }
    }
}

// Its answer is ignored by contract; the log line is what a careful host goes by.
TEST_F(BackupCopyTest, AFailedEndOfTheChangesIsLoggedAndTheCopyStays) {
    std::vector<Step> steps = wholeCopy();
    steps[steps.size() - closing().size() - 1].answer.status = 1234;
    script.play(steps);
    EXPECT_EQ(prepareOpen(), 3000);
    EXPECT_TRUE(folder.exists(copyName));
    EXPECT_EQ(takeErrorText(), "");
    EXPECT_TRUE(messages.hasLog("PrepareOpenDbForBackup(): NSFBackupEndApplyChangeInfo LN C API "
                                "call failed: Notes text 1234"));
}

TEST_F(BackupCopyTest, AFailedFileStepIsUndoneAndReportedWithTheSystemsText) {
    const struct {
        const char* title;
        std::function<void()> spoil;
        int error;
        const char* step;
    } rows[] = {
        {"source gone", [this] { std::filesystem::remove(database); }, ENOENT, "SysFileOpenRead"},
        {"no directory can be made there", [] {}, ENOENT, "SysFileCreateDirectory"},
        {"target is a directory",
         [this] {
             std::filesystem::remove(folder.file("tmp"));
             folder.makeDirectory(copyName);
         },
         EISDIR, "SysFileCreate"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        const bool noDirectory = std::string(row.step) == "SysFileCreateDirectory";
        copyText(g_sQRTLN_Global.szTmpDir, noDirectory ? "/proc/none" : folder.file("tmp").c_str());
        useDatabase("mail/user.nsf", "content");
        Step info = logInfo();
        info.answer.effect = row.spoil;
        script.play({open(), start(), info, end(1), close()});

        EXPECT_EQ(prepareOpen(), 1000);
        const std::string text = std::strerror(row.error);
        EXPECT_EQ(takeErrorText(), text);
        EXPECT_TRUE(messages.hasTrace("PrepareOpenDbForBackup(): " + std::string(row.step) +
                                      " call failed: " + text));
        EXPECT_EQ(openFiles(), filesBefore);
    }
    EXPECT_TRUE(folder.exists(copyName)) << "what the copy did not create is not its to delete";
}

// The temporary directory ends in a delimiter; a name with two dots in it is no way upwards.
TEST_F(BackupCopyTest, CopiesOfEverySizeAroundTheChunkAreExact) {
    copyText(g_sQRTLN_Global.szTmpDir, folder.file("tmp/").c_str());
    for (const std::size_t bytes : {0, 1, 32768, 32769}) {
        SCOPED_TRACE(bytes);
        std::filesystem::remove(folder.file(copyName)); // an existing copy would not be truncated
        useDatabase("mail/..a..nsf", contentOf(bytes));
        script.play(wholeCopy());
        EXPECT_EQ(prepareOpen(), 3000);
        EXPECT_EQ(directory, folder.file("tmp/mail"));
        EXPECT_EQ(folder.read(copyName), contentOf(bytes));
    }
}

// The server hears once in a hundred chunks how far the copy has got; its answer does not count.
// What it cuts off meanwhile is zero until the changes are applied.
TEST_F(BackupCopyTest, ADatabaseCutOffDuringItsCopyIsCopiedInFullLength) {
    const std::string content = std::string(2 * 3276800 + 100, 'x');
    useDatabase("big.nsf", content);
    script.play(
        untilCopied() +
        std::vector<Step>{{"NSFBackupSetHighWaterMark 7 70 3276800 0",
                           {.status = 1234,
                            .effect = [this] { std::filesystem::resize_file(database, 3276800); }}},
                          {"NSFBackupSetHighWaterMark 7 70 6553600 0"}} +
        appliedTo(folder.file(copyName)) + closing());
    EXPECT_EQ(prepareOpen(), 3000);
    const std::string copied = folder.read(copyName);
    EXPECT_EQ(copied.size(), content.size());
    EXPECT_EQ(copied.substr(0, 3276800), content.substr(0, 3276800));
    // The stream may have read ahead by its buffer, of 2 MiB.
    const std::size_t cut = 3276800 + 2097152;
    EXPECT_EQ(copied.substr(cut), std::string(content.size() - cut, '\0'));
}

TEST_F(BackupCopyTest, AStopDeletesWhatWasCopied) {
    for (const bool before : {true, false}) {
        SCOPED_TRACE(before);
        useDatabase("big.nsf", before ? "" : contentOf(2 * 3276800));
        requestStop(before);
        script.play(untilCopied());
        if (!before) {
            script.play({{"NSFBackupSetHighWaterMark 7 70 3276800 0",
                          {.effect = [] { requestStop(true); }}}});
        }
        script.play(undoOfCopy());
        EXPECT_EQ(prepareOpen(), 1000);
        EXPECT_EQ(takeErrorText(), "Notes text 1009");
        EXPECT_TRUE(messages.hasTrace(
            "PrepareOpenDbForBackup(): copy in a loop terminated due to global termination flag"));
        expectNothingLeft();
    }
}

TEST_F(BackupCopyTest, AFullDiskFailsTheCopyWheneverItShows) {
    const struct {
        const char* title;
        std::size_t bytes;
        rlim_t limit;
    } rows[] = {
        // No high water mark is passed before the stream's buffer is written.
        {"at a write", 2 * 2097152 + 10, 1000000},
        {"only at the close", 100000, 99999}, // all of it in the stream's buffer till then
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        useDatabase("a.nsf", contentOf(row.bytes));
        script.play(untilCopied() + undoOfCopy());
        const FileSizeLimit limit(row.limit);
        EXPECT_EQ(prepareOpen(), 1000);
        EXPECT_EQ(takeErrorText(), "Notes text " + std::to_string(EFBIG));
        expectNothingLeft();
    }
}

TEST_F(BackupCopyTest, AFileShorterThanTheServerSaysIsCopiedWithZerosForTheRest) {
    const std::string content = contentOf(size);
    size += 3;
    script.play(wholeCopy());
    EXPECT_EQ(prepareOpen(), 3000);
    EXPECT_EQ(folder.read(copyName), content + std::string(3, '\0'));
    EXPECT_TRUE(
        messages.hasLog("Database file [U:L:" + database + "] is shorter than the size to copy"));
    EXPECT_EQ(takeErrorText(), "");
}

TEST_F(BackupCopyTest, APathThatIsNoPlaceOfACopyIsRefusedBeforeAnyCall) {
    const std::string data = folder.file("data/");
    const struct {
        const char* title;
        std::string path;
        std::string tmpDir;
    } rows[] = {
        {"no delimiter", "name.nsf", folder.file("tmp")},
        {"shorter than the data directory", "/a.nsf", folder.file("tmp")},
        {"leads upwards", data + "mail/../../../etc/a.nsf", folder.file("tmp")},
        {"is the parent", data + "mail/..", folder.file("tmp")},
        {"too long", data + std::string(1100, 'x'), folder.file("tmp")},
        {"the copy's path too long", data + std::string(1000 - data.size(), 'x'),
         "/" + std::string(100, 'y')},
        {"translated path too long", "/" + std::string(1024, 'x') + "\xC3", "/t"},
        {"the copy would be the database itself", database, folder.file("data")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        copyText(g_sQRTLN_Global.szTmpDir, row.tmpDir.c_str());
        EXPECT_EQ(PrepareOpenDbForBackup(row.path.c_str(), directory, &id), 1000);
        const std::string text = takeErrorText();
        const std::string expected = "PrepareOpenDbForBackup(): File full path [U:L:" + row.path;
        EXPECT_EQ(text.substr(0, std::min<std::size_t>(expected.size(), 150)),
                  expected.substr(0, 150));
    }
    g_sQRTLN_Global.szTmpDir[0] = '\0'; // what is below "/" is not ours
    EXPECT_EQ(PrepareOpenDbForBackup(database.c_str(), directory, &id), 1000);
    EXPECT_EQ(takeErrorText(), "PrepareOpenDbForBackup(): there is no TMP_DIR to put a copy of "
                               "[U:L:" +
                                   database + "] in");
    EXPECT_EQ(PrepareDbForBackup("name.nsf", directory, &id), 1000);
    EXPECT_EQ(takeErrorText(), "PrepareDbForBackup(): file full path U:L:name.nsf is not valid.");
    EXPECT_EQ(PrepareDbForBackup(("/" + std::string(1100, 'x')).c_str(), directory, &id), 1000);
    EXPECT_EQ(folder.read("data/mail/user.nsf"), contentOf(size));
}

TEST_F(BackupCopyTest, WithoutTheRuntimeNothingIsCalled) {
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    g_sQRTLN_Global.hCurrDB = 7;
    EXPECT_EQ(prepareOpen(), 1000);
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
    EXPECT_EQ(CloseDbBackup("/data/a.nsf"), 3000);
    EXPECT_EQ(prepareInPlace(), 1000);
    EXPECT_EQ(takeErrorText(), kRuntimeNotInitialized);
    EXPECT_EQ(g_sQRTLN_Global.hCurrDB, 0u);
}

TEST(CopyPasses, AddUpToTheWholeSize) {
    const struct {
        std::uint64_t size;
        std::vector<std::uint64_t> passes;
    } rows[] = {
        {0, {}},
        {1, {1}},
        {0xFFFFFFFF, {0xFFFFFFFF}},
        {0x100000000, {1, 0xFFFFFFFF}},
        {0x100000005, {6, 0xFFFFFFFF}},
        // The low half leaves no room for the byte that the second pass lacks.
        {0x1FFFFFFFF, {1, 0xFFFFFFFF, 0xFFFFFFFF}},
        {0x2FFFFFFFD, {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}},
        {0x2FFFFFFFE, {2, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFE}},
        {0x300000000, {3, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF}},
    };
    for (const auto& row : rows) {
        CopyPasses passes(static_cast<DWORD>(row.size), static_cast<DWORD>(row.size >> 32));
        std::vector<std::uint64_t> lengths;
        for (DWORD pass = passes.first(); pass != 0; pass = passes.next()) {
            lengths.push_back(pass);
        }
        EXPECT_EQ(lengths, row.passes) << row.size;
        EXPECT_EQ(std::accumulate(lengths.begin(), lengths.end(), std::uint64_t{0}), row.size);
    }
    CopyPosition position;
    for (const DWORD count : {0xFFFFFFF0U, 0x20U, 0xFFFFFFFFU, 0x7U}) {
        position.advance(count);
    }
    EXPECT_EQ(position.high(), 2u);
    EXPECT_EQ(position.low(), 0x16u);
}

TEST_F(BackupCopyTest, APreparationInPlaceLeavesDatabaseAndContextOpenInTheRecord) {
    // Freed while it is locked.
    script.play(inPlace() + std::vector<Step>{free()});
    EXPECT_EQ(prepareInPlace(), 3000);
    EXPECT_EQ(directory, folder.file("data/mail"));
    EXPECT_TRUE(id == kId);
    EXPECT_EQ(g_sQRTLN_Global.hCurrDB, 7u);
    EXPECT_EQ(g_sQRTLN_Global.hCurrBackupContext, 70u);
    EXPECT_TRUE(messages.hasLog("PrepareDbForBackup: Database [U:L:" + database +
                                "] is logged, DBIID [F7777776]"));

    // The close ends both; the record keeps the handles.
    script.play({end(0), close()});
    EXPECT_EQ(CloseDbBackup(database.c_str()), 3000);
    EXPECT_TRUE(
        messages.hasTrace("CloseDbBackup(): Closing database backup completed successfully !!!"));
    EXPECT_EQ(g_sQRTLN_Global.hCurrDB, 7u);
    EXPECT_FALSE(folder.exists(copyName));

    // An unlogged database is a warning, a template not.
    for (const auto& [name, result] : {std::pair{"a.nsf", 2000}, std::pair{"a.ntf", 3000}}) {
        useDatabase(name, "content");
        std::vector<Step> steps = inPlace();
        steps[4].answer.status = 1234;
        script.play(steps + std::vector<Step>{free()});
        messages.clear();
        EXPECT_EQ(prepareInPlace(), result);
        EXPECT_TRUE(id == kNoId);
        // The text is logged with the line, not a second time on its own.
        EXPECT_EQ(messages.logs(),
                  std::vector<std::string>{
                      "PrepareDbForBackup(): NSFDbGetLogInfo failed: Notes text 1234"});
    }
}

TEST_F(BackupCopyTest, OnlyWhatTheServerItselfCallsNoDatabaseIsSavedAsAPlainFile) {
    const struct {
        std::string path;
        std::vector<Step> steps; // after the open
        STATUS opened;
        int result;
        std::string error;
        std::string log;
    } rows[] = {
        {database, {}, 513, 3000, "", "File U:L:" + database + " is not a database."},
        {database,
         {{"NSFBackupStart 7 0", {.status = 513}}, close()},
         0,
         3000,
         "",
         "NSFBackupStart: File U:L:" + database + " is not a database."},
        // No such file: the server's answer is not believed when it exists.
        {database, {}, 259, 1000, "Notes text 513 [U:L:" + database + "]", "Notes text 513"},
        {database + "x", {}, 259, 1000, "Notes text 259 [U:L:" + database + "x]", "Notes text 259"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.log);
        script.play({{"NSFDbOpen L:" + row.path, {.status = row.opened, .numbers = {7}}}});
        script.play(row.steps);
        EXPECT_EQ(PrepareDbForBackup(row.path.c_str(), directory, &id), row.result);
        EXPECT_EQ(takeErrorText(), row.error);
        EXPECT_TRUE(messages.hasLog(row.log));
        EXPECT_EQ(g_sQRTLN_Global.hCurrDB, 0u);
    }
}

TEST_F(BackupCopyTest, ACloseOnlyTracesItsFailuresAndPassesOverWhatIsNoDatabase) {
    g_sQRTLN_Global.hCurrDB = 7;
    g_sQRTLN_Global.hCurrBackupContext = 70;
    EXPECT_EQ(CloseDbBackup("/data/names.ncf"), 3000);
    script.play({{end(0).call, {.status = 11}}, {close().call, {.status = 12}}});
    EXPECT_EQ(CloseDbBackup("/data/a.nsf"), 3000);
    EXPECT_TRUE(messages.hasTrace("CloseDbBackup(): NSFBackupEnd() call FAILED: Notes text 11."));
    EXPECT_TRUE(messages.hasTrace("CloseDbBackup(): NSFDbClose() call FAILED: Notes text 12."));
    EXPECT_TRUE(messages.logs().empty());
    EXPECT_EQ(takeErrorText(), "");
}

} // namespace
