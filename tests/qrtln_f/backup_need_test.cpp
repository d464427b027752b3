#include "qrt_lotus_notes/qrtln_f/backup_need.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/iniparser.h"
#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "qrt_lotus_notes/qrtln_n/file_name_text.h"
#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "tests/interface/own_process.h"
#include "tests/qrtln_f/fake_server.h"
#include "tests/support/message_capture.h"

namespace {

namespace fs = std::filesystem;

std::string textOf(DWORD number) {
    char szText[kDbIIdTextSize];
    formatDbIId(dbIId(number), szText);
    return szText;
}

class DbiidIndex : public ::testing::Test {
  protected:
    ~DbiidIndex() override { releaseDBIIDIndex(); }

    std::string index() const { return server.folder.file("run/qrtln_DBIID.ini"); }
    std::string workingName() const { return "run/qrtln_DBIID.ini." + std::to_string(getpid()); }
    std::string workingCopy() const { return server.folder.read(workingName()); }

    // The bytes that a whole write of the index in memory would give.
    std::string wholeDump() const {
        const std::string file = server.folder.file("dump");
        FILE* stream = std::fopen(file.c_str(), "wb");
        iniparser_dump_ini(gdcDBIID, stream);
        std::fclose(stream);
        return server.folder.read("dump");
    }

    // Everything under the directory of run-time data.
    std::vector<std::string> runFiles() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(server.folder.file("run"))) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    FakeServer server;
    MessageCapture messages;
};

TEST_F(DbiidIndex, WithoutAnIndexTheRunStartsEmptyAndLeavesNoIndexWhenNothingIsWritten) {
    server.folder.write(workingName(), "left by another process of this id");
    openDBIIDIndex();
    EXPECT_EQ(wholeDump(), "\n[DBIID]\n\n");
    EXPECT_TRUE(runFiles().empty());
    EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_E_FAILED);
    EXPECT_TRUE(messages.hasLog("QRTLN_EndDBIIDIndexProcessing(): Copy of file [" +
                                server.folder.file(workingName()) + "] to [" + index() +
                                "] FAILED"));
    EXPECT_TRUE(runFiles().empty());
}

TEST_F(DbiidIndex, WorkingCopyReadsLikeAWholeWriteAfterEveryChange) {
    const std::string old = "\n[DBIID]\n/d/a.nsf=" + textOf(1) + "\n/d/short=x\n\n";
    server.folder.write("run/qrtln_DBIID.ini", old);
    openDBIIDIndex();
    EXPECT_EQ(workingCopy(), old);
    for (const auto& [path, number] : {std::pair{"/d/b.nsf", 2}, std::pair{"/d/a.nsf", 3},
                                       std::pair{"/d/short", 6}, std::pair{"/d/d=e.nsf", 7}}) {
        const std::string text = textOf(static_cast<DWORD>(number));
        storeDbIId(path, text.c_str());
        EXPECT_EQ(storedDbIId(path), text);
        EXPECT_EQ(workingCopy(), wholeDump()) << path;
    }
    // A file that somebody changed is written whole.
    std::ofstream(server.folder.file(workingName()), std::ios::app) << std::string(500, 'g');
    storeDbIId("/d/e.nsf", textOf(0x0000ABCD).c_str());
    EXPECT_EQ(workingCopy(), wholeDump());
    EXPECT_STREQ(storedDbIId("/d/e.nsf"), "0000ABCD-A1B2C3D4 00000001FFFFFFFF");
    EXPECT_EQ(server.folder.read("run/qrtln_DBIID.ini"), old) << "untouched before the end";
    EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_I_OK);
    EXPECT_EQ(server.folder.read("run/qrtln_DBIID.ini"), wholeDump());
    EXPECT_EQ(runFiles(), std::vector<std::string>{"qrtln_DBIID.ini"});
}

// What this process has written to files so far, in bytes.
unsigned long long bytesWritten() {
    std::ifstream io("/proc/self/io");
    std::string name;
    unsigned long long value = 0;
    while (io >> name >> value) {
        if (name == "wchar:") {
            return value;
        }
    }
    ADD_FAILURE() << "the system does not count the bytes that a process writes";
    return 0;
}

TEST_F(DbiidIndex, TenThousandDatabasesCostTenThousandEntriesNotTheirSquare) {
    constexpr int kDatabases = 10000;
    const auto path = [](int i) {
        return "/local/notesdata/mail/user" + std::to_string(i) + ".nsf";
    };
    std::string others = "[Other]\nx=y\n[DBIID]\n"; // with values of another length
    for (int i = 0; i < kDatabases; ++i) {
        others += path(i) + "=\"\"\n";
    }
    for (const std::string& index :
         {std::string(), std::string("[DBIID]\n[Other]\nx=y\n"), others + "[Last]\na=b\n"}) {
        SCOPED_TRACE(index.substr(0, 40));
        server.folder.write("run/qrtln_DBIID.ini", index);
        openDBIIDIndex();
        const unsigned long long before = bytesWritten();
        for (int pass = 0; pass < 2; ++pass) { // first added, then changed
            for (int i = 0; i < kDatabases; ++i) {
                storeDbIId(path(i).c_str(),
                           textOf(static_cast<DWORD>(pass * kDatabases + i)).c_str());
            }
        }
        const unsigned long long written = bytesWritten() - before;
        const std::string whole = wholeDump();
        EXPECT_GT(written, whole.size());
        EXPECT_LT(written, (index.empty() ? 3 : 20) * whole.size());
        EXPECT_TRUE(!index.empty() || workingCopy() == whole);
        // The next run reads the same.
        EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_I_OK);
        openDBIIDIndex();
        EXPECT_TRUE(wholeDump() == whole);
        releaseDBIIDIndex();
    }
}

// Read errors of a file that is there: of a directory, and of a disk.
TEST_F(DbiidIndex, AnIndexThatCannotBeReadStaysAndGetsNoEntries) {
    for (const char* unreadable : {"/", "/proc/self/mem"}) {
        fs::create_symlink(unreadable, index());
        openDBIIDIndex();
        storeDbIId("/d/a.nsf", textOf(1).c_str());
        EXPECT_EQ(storedDbIId("/d/a.nsf"), nullptr);
        EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_E_FAILED);
        EXPECT_EQ(runFiles(), std::vector<std::string>{"qrtln_DBIID.ini"});
        ASSERT_EQ(fs::read_symlink(index()), unreadable);
        fs::remove(index());
    }
    const std::string said = "QRTLN_InitBackup(): index file [" + index() + "] cannot be read (";
    EXPECT_TRUE(messages.hasLog(said + "5): Input/output error; it stays as it is, and this backup "
                                       "has no entries and sets none"));
}

TEST_F(DbiidIndex, KeepsItsEntriesWhateverADamagedIndexOrAPathHolds) {
    for (const std::string damaged :
         {"\n/d/old.nsf=1\n", "\n[DBIID]\n[DBIID: [\n", "/d/old.nsf=1\n[DBIID]\n/d/c.nsf=x\n"}) {
        server.folder.write("run/qrtln_DBIID.ini", damaged);
        openDBIIDIndex();
        storeDbIId("/d/a.nsf", textOf(1).c_str());
        storeDbIId("/d/\n[x].nsf", textOf(2).c_str()); // would begin another section
        storeDbIId("/d/b.nsf", textOf(3).c_str());
        EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_I_OK);
        openDBIIDIndex();
        for (const auto& [path, number] : {std::pair{"/d/a.nsf", 1U}, {"/d/b.nsf", 3U}}) {
            const char* stored = storedDbIId(path);
            ASSERT_NE(stored, nullptr) << path << " behind " << damaged;
            EXPECT_EQ(stored, textOf(number));
        }
    }
}

TEST_F(DbiidIndex, WorkingCopyThatCannotBeWrittenNeverReplacesTheIndex) {
    const std::string old = "\n[DBIID]\n/d/a.nsf=" + textOf(1) + "\n\n";
    const std::string copy = server.folder.file(workingName());
    for (const bool opens : {false, true}) {
        server.folder.write("run/qrtln_DBIID.ini", old);
        openDBIIDIndex();
        fs::remove(copy);
        if (opens) {
            fs::create_symlink("/dev/full", copy); // a full disk
        } else {
            // A directory of that name is the one obstacle that stops root, too.
            server.folder.makeDirectory(workingName() + "/x");
        }
        storeDbIId("/d/a.nsf", textOf(2).c_str());
        EXPECT_TRUE(messages.hasLog(
            "QRTLN_IsBackupNeeded: " +
            (opens ? "writing " + copy + " failed with errno (28): No space left on device"
                   : "fopen(" + copy + ") failed with errno (21): Is a directory")));
        EXPECT_EQ(storedDbIId("/d/a.nsf"), textOf(opens ? 2 : 1));
        ASSERT_FALSE(fs::is_symlink(copy)) << "half an index is no index";
        EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_E_FAILED);
        EXPECT_EQ(server.folder.read("run/qrtln_DBIID.ini"), old);
        fs::remove_all(copy);
        releaseDBIIDIndex();
    }
}

TEST_F(DbiidIndex, IndexIsReplacedByRenameAndKeepsItsModeAndItsLink) {
    const std::string old = "\n[DBIID]\n/d/a.nsf=" + textOf(1) + "\n\n";
    const std::string real = server.folder.write("elsewhere/index", old);
    chmod(real.c_str(), 0640);
    fs::create_symlink(real, index());
    struct stat before;
    ASSERT_EQ(stat(real.c_str(), &before), 0);
    // A second name of the old file: were it written over in place, a crash would leave half of it.
    fs::create_hard_link(real, server.folder.file("elsewhere/old"));
    openDBIIDIndex();
    storeDbIId("/d/a.nsf", textOf(2).c_str());
    EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_I_OK);
    struct stat after;
    ASSERT_EQ(stat(real.c_str(), &after), 0);
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_TRUE(fs::is_symlink(index()));
    EXPECT_EQ(server.folder.read("elsewhere/old"), old);
    EXPECT_EQ(server.folder.read("elsewhere/index"), wholeDump());
    EXPECT_FALSE(server.folder.exists(workingName()));
    // By another user of the group, who cannot give it back to its owner.
    if (geteuid() == 0) {
        constexpr uid_t kOwner = 2001, kOther = 2002;
        constexpr gid_t kGroup = 2003;
        ASSERT_EQ(chown(real.c_str(), kOwner, kGroup), 0);
        chmod(real.c_str(), 0660);
        for (const char* folder : {"elsewhere", "run", ""}) {
            chmod(server.folder.file(folder).c_str(), 0777);
        }
        inOwnProcess([&] {
            umask(077);
            ASSERT_EQ(setgroups(1, &kGroup), 0);
            ASSERT_EQ(setgid(kOther), 0);
            ASSERT_EQ(setuid(kOther), 0);
            openDBIIDIndex();
            storeDbIId("/d/a.nsf", textOf(3).c_str());
            EXPECT_EQ(QRTLN_EndDBIIDIndexProcessing(TRUE), DB_NUM_I_OK);
        });
        ASSERT_EQ(stat(real.c_str(), &after), 0);
        EXPECT_EQ(after.st_uid, kOther);
        EXPECT_EQ(after.st_gid, kGroup);
        EXPECT_EQ(after.st_mode & 07777, 0660u);
    }
}

TEST(AddPidToFilename, StaysWithinTheBuffer) {
    const std::string pid = "." + std::to_string(getpid());
    char szFits[64] = "index";
    AddPidToFilename(szFits, sizeof szFits);
    EXPECT_EQ(szFits, "index" + pid);
    char szTight[8] = "index";
    AddPidToFilename(szTight, sizeof szTight);
    EXPECT_EQ(szTight, ("index" + pid).substr(0, 7));
}

// --- The decision -------------------------------------------------------------------------------

TEST_F(DbiidIndex, DecisionFollowsLevelLoggingAndEntry) {
    constexpr time_t kLongAgo = 1000;
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
        bool updated;
    };
    const UNIVERSALNOTEID id = dbIId(7);
    const FakeDatabase logged{TRUE, id, true, 0, false, 0};
    const FakeDatabase changed{TRUE, id, true, 0, true, 0};
    const FakeDatabase never{TRUE, id, false, 0, false, 0};
    const FakeDatabase spanned{TRUE, id, true, 1, false, 0};
    const FakeDatabase unlogged{FALSE, {}, true, 1, false, 0};
    const FakeDatabase unloggedChanged{FALSE, {}, false, 1, true, 0};
    const FakeDatabase no; // not a database
    const WORD A = kLogStyleArchive;
    const WORD C = kLogStyleCircular;
    constexpr auto kFull = DB_LEVEL_FULL;
    constexpr auto kIncr = DB_LEVEL_INCR;
    constexpr auto kDiff = DB_LEVEL_DIFF;
    const Case cases[] = {
        {"adds the entry", "a.nsf", kFull, A, logged, none, 0, TRUE, true},
        {"renews an equal entry", "a.nsf", kFull, A, logged, equal, 0, TRUE, true},
        {"leaves the entry if never backed up", "a.nsf", kFull, A, never, other, 0, TRUE, false},
        {"skips an equal entry", "a.nsf", kIncr, A, logged, equal, kLongAgo, FALSE, false},
        {"updates another DBIID", "a.nsf", kIncr, A, logged, other, 0, TRUE, true},
        {"skips without an entry", "a.nsf", kIncr, A, changed, none, kLongAgo, FALSE, false},
        {"adds nothing if never backed up", "a.nsf", kIncr, A, never, none, 0, TRUE, false},
        {"skips a circular log", "a.nsf", kIncr, C, spanned, none, kLongAgo, FALSE, false},
        {"skips unlogged", "a.nsf", kIncr, A, unloggedChanged, none, kLongAgo, FALSE, false},
        {"skips other files", "a.id", kIncr, A, no, none, kLongAgo, FALSE, false},
        {"takes another DBIID", "a.ns4", kDiff, A, logged, other, kFuture, TRUE, true},
        {"newer and modified", "a.nsf", kDiff, A, changed, equal, kLongAgo, TRUE, false},
        {"newer, not modified", "a.nsf", kDiff, A, logged, equal, kLongAgo, FALSE, false},
        {"modified, not newer", "a.nsf", kDiff, A, changed, equal, kFuture, FALSE, false},
        {"asks a circular span", "a.nsf", kDiff, C, spanned, none, kFuture, TRUE, false},
        {"circular without a span", "a.nsf", kDiff, C, logged, none, kFuture, FALSE, false},
        {"no span if unlogged", "a.nsf", kDiff, A, unlogged, none, kFuture, FALSE, false},
        {"unlogged, modified", "a.nsf", kDiff, A, unloggedChanged, none, kLongAgo, TRUE, false},
        {"a newer file", "a.id", kDiff, A, no, none, kLongAgo, TRUE, false},
        {"an older file", "a.ncf", kDiff, A, no, none, kFuture, FALSE, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.title) + ", level " + std::to_string(c.level));
        messages.clear();
        fs::remove(index());
        const std::string path = server.addDatabase(c.name, c.database);
        if (c.entry != none) {
            server.folder.write("run/qrtln_DBIID.ini", "\n[DBIID]\n" + path + "=" +
                                                           textOf(c.entry == equal ? 7 : 6) +
                                                           "\n\n");
        }
        openDBIIDIndex();
        const std::string before = wholeDump();
        FakeServer::s_style = c.style;
        g_sQRTLN_Global.tSinceTime = c.since;
        BOOL bNeeded = !c.expected;
        EXPECT_EQ(QRTLN_IsBackupNeeded(path.c_str(), c.level, &bNeeded), DB_NUM_I_OK);
        EXPECT_EQ(bNeeded, c.expected);
        EXPECT_EQ(messages.hasLog("QRTLN_IsBackupNeeded: Update index file " +
                                  server.folder.file(workingName())),
                  c.updated);
        if (c.updated) {
            EXPECT_EQ(workingCopy(), "\n[DBIID]\n" + path + "=" + textOf(7) + "\n\n");
        } else {
            EXPECT_EQ(wholeDump(), before);
        }
        EXPECT_EQ(FakeServer::s_opens, 0);
    }
}

// The server's question failed: only what is not saved for another reason is told as undecided.
TEST_F(DbiidIndex, UndecidedIsOnlyWhatEndsUnselected) {
    for (const bool archive : {true, false}) {
        FakeServer::s_style = archive ? kLogStyleArchive : kLogStyleCircular;
        FakeDatabase database{TRUE, dbIId(7), true, 0, false};
        database.needStatus = 1234;
        for (const bool selected : {false, true}) {
            SCOPED_TRACE(std::to_string(archive) + std::to_string(selected));
            database.bModified = selected;
            const std::string path = server.addDatabase("a.nsf", database);
            openDBIIDIndex();
            messages.clear();
            BOOL bNeeded = !selected;
            g_sQRTLN_Global.tSinceTime = 1000;
            EXPECT_EQ(QRTLN_IsBackupNeeded(path.c_str(), DB_LEVEL_DIFF, &bNeeded), DB_NUM_I_OK);
            EXPECT_EQ(bNeeded, selected);
            EXPECT_EQ(messages.hasLog("Checking if file needs to be backed up failure: " + path),
                      !selected);
        }
    }
}

// The server's characters are not those of the platform: the index is in UTF-8 whatever they are.
TEST_F(DbiidIndex, TheKeyOfAnEntryIsInUtf8) {
    notes_api.OSTranslate = [](WORD mode, const char* in, WORD, char* out, WORD size) -> WORD {
        copyText(out, size, in);
        if (mode == 22) {
            *std::strrchr(out, '.') = ':';
        }
        return static_cast<WORD>(std::strlen(out));
    };
    forgetFileNames();
    const std::string path = server.addDatabase("a.nsf", {TRUE, dbIId(1), true, 0, false, 0});
    openDBIIDIndex();
    BOOL bNeeded = FALSE;
    QRTLN_IsBackupNeeded(path.c_str(), DB_LEVEL_FULL, &bNeeded);
    EXPECT_EQ(workingCopy(), "\n[DBIID]\n" + server.data("a:nsf") + "=" + textOf(1) + "\n\n");
    forgetFileNames();
}

TEST_F(DbiidIndex, DecisionsAreLoggedByName) {
    const std::string never = server.addDatabase("never.nsf", {TRUE, dbIId(1), false, 0, false, 0});
    const std::string moved = server.addDatabase("moved.nsf", {TRUE, dbIId(2), true, 0, false, 0});
    server.folder.write("run/qrtln_DBIID.ini", "[DBIID]\n" + moved + "=" + textOf(1) + "\n");
    openDBIIDIndex();
    BOOL bNeeded = FALSE;
    QRTLN_IsBackupNeeded(never.c_str(), DB_LEVEL_INCR, &bNeeded);
    QRTLN_IsBackupNeeded(moved.c_str(), DB_LEVEL_INCR, &bNeeded);
    EXPECT_TRUE(messages.hasLog("QRTLN_IsBackupNeeded: The database never.nsf has not been backed "
                                "up on this server/instance of the log."));
    EXPECT_TRUE(messages.hasLog("QRTLN_IsBackupNeeded: DBIID of moved.nsf has changed from [" +
                                textOf(1) + "] to [" + textOf(2) + "]"));
}

TEST_F(DbiidIndex, UnreadableLoggingStateFailsTheDecision) {
    FakeDatabase database;
    database.openStatus = kNotesNotADatabase;
    const std::string path = server.addDatabase("a.nsf", database);
    openDBIIDIndex();
    BOOL bNeeded = TRUE;
    EXPECT_EQ(QRTLN_IsBackupNeeded(path.c_str(), DB_LEVEL_FULL, &bNeeded), DB_NUM_E_FAILED);
    EXPECT_FALSE(bNeeded);
}

// --- Preparation and finish ----------------------------------------------------------------------

TEST_F(DbiidIndex, DatabaseThatIsNotLoggedIsAWarningButForCopiesAndTheServersOwn) {
    struct Case {
        const char* name;
        DB_OPERATION_LEVEL level;
        BOOL logged;
        int expected;
    };
    for (const Case& c : {Case{"m/a.nsf", DB_LEVEL_FULL, TRUE, DB_NUM_I_OK},
                          Case{"m/a.nsf", DB_LEVEL_FULL, FALSE, DB_NUM_W_WARNING},
                          Case{"m/a.nsf", DB_LEVEL_COPY, FALSE, DB_NUM_I_OK},
                          Case{"m/events4.nsf", DB_LEVEL_INCR, FALSE, DB_NUM_I_OK},
                          Case{"m/events.nsf", DB_LEVEL_INCR, FALSE, DB_NUM_I_OK},
                          Case{"m/dbdirman.nsf", DB_LEVEL_INCR, FALSE, DB_NUM_I_OK},
                          Case{"m/Events4.nsf", DB_LEVEL_INCR, FALSE, DB_NUM_W_WARNING}}) {
        SCOPED_TRACE(c.name);
        messages.clear();
        FakeDatabase database;
        database.bLogged = c.logged;
        std::string path = server.addDatabase(c.name, database);
        g_sQRTLN_Global.eI_OperationLevel = c.level;
        char szDirectory[kPathSize] = "";
        BOOL bOpen = FALSE;
        EXPECT_EQ(QRTLN_PrepareForBackup(path.data(), szDirectory, &bOpen), c.expected);
        EXPECT_TRUE(bOpen);
        EXPECT_EQ(szDirectory, server.folder.file("tmp/m"));
        EXPECT_TRUE(server.folder.exists("tmp/" + std::string(c.name)));
        EXPECT_EQ(messages.hasLog(std::string("QRTLN_PrepareForBackup: ") + (c.name + 2) +
                                  " is never logged so return OK"),
                  c.level == DB_LEVEL_INCR && c.expected == DB_NUM_I_OK);
        EXPECT_EQ(finishBackupFile(path.c_str(), bOpen), DB_NUM_I_OK);
        EXPECT_FALSE(server.folder.exists("tmp/" + std::string(c.name)));
        EXPECT_TRUE(fs::exists(path));
    }
}

TEST_F(DbiidIndex, OtherFilesAreReadWhereTheyLie) {
    for (const auto& [path, expected] :
         {std::pair{"/d/e/server.id", "/d/e"}, {"/x.cfg", ""}, {"nodelimiter", "before"}}) {
        char szFile[kPathSize];
        char szDirectory[kPathSize] = "before";
        copyText(szFile, path);
        BOOL bOpen = FALSE;
        EXPECT_EQ(QRTLN_PrepareForBackup(szFile, szDirectory, &bOpen), DB_NUM_I_OK);
        EXPECT_STREQ(szDirectory, expected);
        EXPECT_FALSE(bOpen);
    }
}

TEST_F(DbiidIndex, FinishDeletesNothingOutsideTheTemporaryDirectory) {
    const std::string live = server.addFile("live.nsf");
    const std::string victim = server.folder.write("victim.nsf", "v");
    const std::string data = g_sQRTLN_Global.szNotesDataDirectory;
    for (const std::string& path :
         {std::string("nodelimiter.nsf"), std::string("/s.nsf"), data + "../victim.nsf",
          data + "a/../../victim.nsf", data + std::string(kPathSize, 'x') + ".nsf"}) {
        SCOPED_TRACE(path.substr(0, 200));
        EXPECT_EQ(finishBackupFile(path.c_str(), TRUE), DB_NUM_E_FAILED);
        EXPECT_THAT(takeErrorText(), ::testing::StartsWith("finishBackupFile(): file full path ["));
    }
    // What was never prepared has no copy, whatever was prepared before it.
    for (const BOOL bFileWasOpen : {FALSE, TRUE}) {
        EXPECT_EQ(finishBackupFile("/s.ncf", bFileWasOpen), DB_NUM_I_OK);
    }
    // Without TMP_DIR there is no copy: what its path below "/" would be is not ours.
    copyText(g_sQRTLN_Global.szNotesDataDirectory, "/notes");
    g_sQRTLN_Global.szTmpDir[0] = '\0';
    EXPECT_EQ(finishBackupFile(("/notes" + victim).c_str(), TRUE), DB_NUM_I_OK);
    copyText(g_sQRTLN_Global.szNotesDataDirectory, data.c_str());
    // With TMP_DIR at the data directory the copy would be the live database.
    for (const std::string& directory : {data, data.substr(0, data.size() - 1)}) {
        copyText(g_sQRTLN_Global.szTmpDir, directory.c_str());
        EXPECT_EQ(finishBackupFile(live.c_str(), TRUE), DB_NUM_E_FAILED);
    }
    EXPECT_TRUE(fs::exists(live));
    EXPECT_TRUE(fs::exists(victim));
    // Names that only look like a way up are names.
    copyText(g_sQRTLN_Global.szTmpDir, (server.folder.file("tmp") + "/").c_str());
    server.folder.write("tmp/..a/b...nsf", "c");
    EXPECT_EQ(finishBackupFile((data + "..a/b...nsf").c_str(), TRUE), DB_NUM_I_OK);
    EXPECT_FALSE(server.folder.exists("tmp/..a/b...nsf"));
}

} // namespace
