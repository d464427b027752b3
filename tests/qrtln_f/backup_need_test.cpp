#include "qrt_lotus_notes/qrtln_f/backup_need.h"

#include <sys/stat.h>
#include <unistd.h>

#include "common/iniparser.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "tests/qrtln_f/fake_server.h"

// The client's function that the module calls to find its directory of run-time data.
extern "C" void resolve_path(char* path) {
    const std::string text = path;
    copyText(path, kPathSize, (s_runTimeDirectory + "/" + text.substr(text.find(':') + 1)).c_str());
}

namespace {

namespace fs = std::filesystem;

std::string idText(DWORD number) {
    char szText[kDbIIdTextSize];
    formatDbIId(dbIId(number), szText);
    return szText;
}

// An index with one entry.
std::string indexOf(const std::string& path, DWORD number) {
    return "\n[DBIID]\n" + path + "=" + idText(number) + "\n\n";
}

class DbiidIndex : public FakeServer {
  protected:
    ~DbiidIndex() override { releaseDBIIDIndex(); }

    const std::string index = folder.file("run/qrtln_DBIID.ini");
    const std::string copy = index + "." + std::to_string(getpid());

    void open(const std::string& content) const {
        folder.write("run/qrtln_DBIID.ini", content);
        openDBIIDIndex();
    }
    std::string indexContent() const { return folder.read("run/qrtln_DBIID.ini"); }
    std::string copyContent() const {
        return folder.read("run/" + fs::path(copy).filename().string());
    }
    // The bytes that a whole write of the index in memory would give.
    std::string wholeDump() const {
        FILE* stream = std::fopen(folder.file("dump").c_str(), "wb");
        iniparser_dump_ini(gdcDBIID, stream);
        std::fclose(stream);
        return folder.read("dump");
    }
    // How many files there are in the directory of run-time data.
    long runFiles() const {
        return std::distance(fs::directory_iterator(folder.file("run")), fs::directory_iterator());
    }
};

TEST_F(DbiidIndex, WorkingCopyReadsLikeAWholeWriteAndTakesTheIndexsPlaceAtTheEnd) {
    folder.write("run/" + fs::path(copy).filename().string(), "of another process of this id");
    openDBIIDIndex();
    EXPECT_EQ(wholeDump(), "\n[DBIID]\n\n");
    EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_E_FAILED) << "nothing was written";
    EXPECT_EQ(runFiles(), 0);

    open(""); // no reason to keep it
    EXPECT_EQ(wholeDump(), "\n[DBIID]\n\n");
    const std::string old = "\n[DBIID]\n/d/a.nsf=" + idText(1) + "\n/d/short=x\n\n";
    open(old);
    EXPECT_EQ(copyContent(), old);
    DWORD number = 0xABCD;
    for (const char* path : {"/d/b.nsf", "/d/a.nsf", "/d/short", "/d/d=e.nsf"}) {
        storeDbIId(path, idText(++number).c_str());
        EXPECT_EQ(storedDbIId(path), idText(number));
        EXPECT_EQ(copyContent(), wholeDump()) << path;
    }
    EXPECT_STREQ(storedDbIId("/d/b.nsf"), "0000ABCE-A1B2C3D4 00000001FFFFFFFF");
    std::ofstream(copy, std::ios::app) << std::string(500, 'x'); // somebody else did
    storeDbIId("/d/e.nsf", idText(++number).c_str());
    EXPECT_EQ(copyContent(), wholeDump());
    EXPECT_EQ(indexContent(), old) << "untouched before the end";
    EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_I_OK);
    EXPECT_EQ(indexContent(), wholeDump());
    EXPECT_EQ(runFiles(), 1);
}

// Read errors of a file that is there: of a directory, and of a disk.
TEST_F(DbiidIndex, AnIndexThatCannotBeReadStaysAndGetsNoEntries) {
    for (const char* unreadable : {"/", "/proc/self/mem"}) {
        fs::create_symlink(unreadable, index);
        openDBIIDIndex();
        storeDbIId("/d/a.nsf", idText(1).c_str());
        EXPECT_EQ(storedDbIId("/d/a.nsf"), nullptr);
        EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_E_FAILED);
        EXPECT_EQ(runFiles(), 1);
        ASSERT_EQ(fs::read_symlink(index), unreadable);
        fs::remove(index);
        EXPECT_EQ(logsWith("index file [" + index + "] cannot be read"), 1);
        messages.clear();
    }
}

TEST_F(DbiidIndex, WorkingCopyThatCannotBeWrittenNeverReplacesTheIndex) {
    const std::string old = indexOf("/d/a.nsf", 1);
    for (const bool opens : {false, true}) {
        open(old);
        fs::remove(copy);
        if (opens) {
            fs::create_symlink("/dev/full", copy); // a full disk
        } else {
            fs::create_directories(copy + "/x"); // the one obstacle that stops root, too
        }
        storeDbIId("/d/a.nsf", idText(2).c_str());
        EXPECT_TRUE(
            logged("QRTLN_IsBackupNeeded: " +
                   (opens ? "writing " + copy + " failed with errno (28): No space left on device"
                          : "fopen(" + copy + ") failed with errno (21): Is a directory")));
        EXPECT_EQ(storedDbIId("/d/a.nsf"), idText(opens ? 2 : 1));
        ASSERT_FALSE(fs::is_symlink(copy)) << "half an index is no index";
        EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_E_FAILED);
        EXPECT_EQ(indexContent(), old);
        fs::remove_all(copy);
    }
}

TEST_F(DbiidIndex, IndexIsReplacedByRenameAndKeepsItsModeItsOwnerAndItsLink) {
    const std::string old = indexOf("/d/a.nsf", 1);
    const std::string real = folder.write("elsewhere/index", old);
    fs::create_symlink(real, index);
    // A second name of the old file: were it written over in place, a crash would leave half of it.
    fs::create_hard_link(real, folder.file("elsewhere/old"));
    const bool isRoot = geteuid() == 0;
    ASSERT_TRUE(!isRoot || chown(real.c_str(), 2001, 2003) == 0);
    chmod(real.c_str(), 0640);
    openDBIIDIndex();
    storeDbIId("/d/a.nsf", idText(2).c_str());
    EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_I_OK);
    struct stat status;
    ASSERT_EQ(stat(real.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_TRUE(!isRoot || (status.st_uid == 2001 && status.st_gid == 2003));
    EXPECT_TRUE(fs::is_symlink(index));
    EXPECT_EQ(folder.read("elsewhere/old"), old);
    EXPECT_EQ(folder.read("elsewhere/index"), indexOf("/d/a.nsf", 2));
}

// --- The decision -------------------------------------------------------------------------------

TEST_F(DbiidIndex, DecisionFollowsLevelLoggingAndEntry) {
    constexpr time_t kPast = 1000;
    const time_t kFuture = time(nullptr) + 100000;
    enum Entry { none, equal, other };
    struct Case {
        const char* title;
        const char* name;
        DB_OPERATION_LEVEL level;
        WORD style;
        FakeDatabase database;
        Entry entry;
        time_t since;
        BOOL expected;
        bool updated = false;
        bool undecided = false;
    };
    const FakeDatabase logged{TRUE, 7};
    const FakeDatabase changed{TRUE, 7, 0, 0, true};
    const FakeDatabase never{TRUE, 7, kNotesNotBackedUp};
    const FakeDatabase spanned{TRUE, 7, 0, 1};
    const FakeDatabase failing{TRUE, 7, 1234};
    const FakeDatabase failingChanged{TRUE, 7, 1234, 0, true};
    const FakeDatabase unlogged{FALSE, 7, 0, 1};
    const FakeDatabase unloggedChanged{FALSE, 7, kNotesNotBackedUp, 1, true};
    const FakeDatabase no; // not a database
    const WORD A = kLogStyleArchive;
    const WORD C = kLogStyleCircular;
    constexpr auto kFull = DB_LEVEL_FULL;
    constexpr auto kIncr = DB_LEVEL_INCR;
    constexpr auto kDiff = DB_LEVEL_DIFF;
    const Case cases[] = {
        {"adds the entry", "a.nsf", kFull, A, logged, none, 0, TRUE, true},
        {"renews an equal entry", "a.nsf", kFull, A, logged, equal, 0, TRUE, true},
        {"leaves the entry if never backed up", "a.nsf", kFull, A, never, other, 0, TRUE},
        {"decides without the answer", "a.nsf", kFull, A, failing, none, 0, TRUE, true},
        {"skips an equal entry", "a.nsf", kIncr, A, logged, equal, kPast, FALSE},
        {"updates another DBIID", "a.nsf", kIncr, A, logged, other, 0, TRUE, true},
        {"skips without an entry", "a.nsf", kIncr, A, changed, none, kPast, FALSE},
        {"adds nothing if never backed up", "a.nsf", kIncr, A, never, none, 0, TRUE},
        {"skips a circular log", "a.nsf", kIncr, C, spanned, none, kPast, FALSE},
        {"skips unlogged", "a.nsf", kIncr, A, unloggedChanged, none, kPast, FALSE},
        {"skips other files", "a.id", kIncr, A, no, none, kPast, FALSE},
        {"takes another DBIID", "a.ns4", kDiff, A, logged, other, kFuture, TRUE, true},
        {"newer and modified", "a.nsf", kDiff, A, changed, equal, kPast, TRUE},
        {"newer, not modified", "a.nsf", kDiff, A, logged, equal, kPast, FALSE},
        {"modified, not newer", "a.nsf", kDiff, A, changed, equal, kFuture, FALSE},
        {"asks a circular span", "a.nsf", kDiff, C, spanned, none, kFuture, TRUE},
        {"circular without a span", "a.nsf", kDiff, C, logged, none, kFuture, FALSE},
        {"no span if unlogged", "a.nsf", kDiff, A, unlogged, none, kFuture, FALSE},
        {"unlogged, modified", "a.nsf", kDiff, A, unloggedChanged, none, kPast, TRUE},
        {"a newer file", "a.id", kDiff, A, no, none, kPast, TRUE},
        {"an older file", "a.ncf", kDiff, A, no, none, kFuture, FALSE},
        // Only what is not saved for another reason is told as undecided.
        {"no answer", "a.nsf", kDiff, A, failing, none, kPast, FALSE, false, true},
        {"no answer, circular", "a.nsf", kDiff, C, failing, none, kPast, FALSE, false, true},
        {"no answer, modified", "a.nsf", kDiff, C, failingChanged, none, kPast, TRUE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.title) + ", level " + std::to_string(c.level));
        messages.clear();
        const std::string path = add(c.name, c.database);
        open(c.entry == none ? "[DBIID]" : indexOf(path, c.entry == equal ? 7 : 6));
        const std::string before = wholeDump();
        style = c.style;
        g_sQRTLN_Global.tSinceTime = c.since;
        BOOL bNeeded = !c.expected;
        EXPECT_EQ(QRTLN_IsBackupNeeded(path.c_str(), c.level, &bNeeded), DB_NUM_I_OK);
        EXPECT_EQ(bNeeded, c.expected);
        EXPECT_EQ(wholeDump(), c.updated ? indexOf(path, 7) : before);
        EXPECT_EQ(this->logged("QRTLN_IsBackupNeeded: Update index file " + copy), c.updated);
        EXPECT_EQ(logsWith("has changed from [" + idText(6) + "] to [" + idText(7) + "]"),
                  c.updated && c.entry == other);
        EXPECT_EQ(logsWith("The database a.nsf has not been backed up on this server"),
                  c.expected && c.database.needStatus == kNotesNotBackedUp && c.database.bLogged);
        EXPECT_EQ(this->logged("Checking if file needs to be backed up failure: " + path),
                  c.undecided);
    }
}

// --- Preparation and finish ----------------------------------------------------------------------

TEST_F(DbiidIndex, DatabaseThatIsNotLoggedIsAWarningButForCopiesAndTheServersOwn) {
    const struct {
        const char* name;
        DB_OPERATION_LEVEL level;
        BOOL logged;
        int expected;
    } cases[] = {
        {"a.nsf", DB_LEVEL_FULL, TRUE, DB_NUM_I_OK},
        {"a.nsf", DB_LEVEL_FULL, FALSE, DB_NUM_W_WARNING},
        {"a.nsf", DB_LEVEL_COPY, FALSE, DB_NUM_I_OK},
        {"events4.nsf", DB_LEVEL_INCR, FALSE, DB_NUM_I_OK},
        {"dbdirman.nsf", DB_LEVEL_INCR, FALSE, DB_NUM_I_OK},
        {"Events.nsf", DB_LEVEL_INCR, FALSE, DB_NUM_W_WARNING},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = add(std::string("m/") + c.name, {c.logged});
        const std::string prepared = std::string("tmp/m/") + c.name;
        g_sQRTLN_Global.eI_OperationLevel = c.level;
        char szDirectory[kPathSize] = "";
        BOOL bOpen = FALSE;
        EXPECT_EQ(QRTLN_PrepareForBackup(path.data(), szDirectory, &bOpen), c.expected);
        EXPECT_TRUE(bOpen);
        EXPECT_EQ(szDirectory, full("@/tmp/m"));
        EXPECT_TRUE(folder.exists(prepared));
        EXPECT_EQ(finishBackupFile(path.c_str(), bOpen), DB_NUM_I_OK);
        EXPECT_FALSE(folder.exists(prepared));
        EXPECT_TRUE(fs::exists(path));
    }
}

TEST_F(DbiidIndex, FinishDeletesNothingOutsideTheTemporaryDirectory) {
    const std::string live = add("live.nsf");
    const std::string victim = folder.write("victim.nsf", "v");
    folder.write("tmp/..a/b...nsf", "c");
    struct Case {
        std::string path;
        const char* tmpDir = "@/tmp/";
        const char* data = "@/data/";
        int result = DB_NUM_E_FAILED;
    };
    const Case cases[] = {
        {"nodelimiter.nsf"},
        {"@/data/../victim.nsf"},
        {"@/data/" + std::string(kPathSize, 'x') + ".nsf"},
        // With TMP_DIR at the data directory the copy would be the live database.
        {"@/data/live.nsf", "@/data/"},
        // Without TMP_DIR there is no copy: what its path below "/" would be is not ours.
        {"/notes@/victim.nsf", "", "/notes", DB_NUM_I_OK},
        // What was never prepared has no copy, whatever was prepared before it.
        {"/s.ncf", "@/tmp/", "@/data/", DB_NUM_I_OK},
        // Names that only look like a way up are names.
        {"@/data/..a/b...nsf", "@/tmp/", "@/data/", DB_NUM_I_OK},
    };
    for (const Case& c : cases) {
        set(g_sQRTLN_Global.szTmpDir, c.tmpDir);
        set(g_sQRTLN_Global.szNotesDataDirectory, c.data);
        EXPECT_EQ(finishBackupFile(full(c.path).c_str(), TRUE), c.result) << c.path;
        EXPECT_EQ(takeErrorText().starts_with("finishBackupFile(): "), c.result != DB_NUM_I_OK);
        EXPECT_TRUE(fs::exists(live) && fs::exists(victim)) << c.path;
    }
    EXPECT_FALSE(folder.exists("tmp/..a/b...nsf"));
}

} // namespace
