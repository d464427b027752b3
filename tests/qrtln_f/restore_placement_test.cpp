#include "qrt_lotus_notes/qrtln_f/restore_placement.h"

#include <iterator>
#include <sstream>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/qrtln_f/fake_server.h"
#include "tests/support/message_capture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// A restore with a data directory and TMP_DIR. "@" in a text stands for the test's folder.
class RestorePlacement : public testing::Test {
  protected:
    RestorePlacement() { restore(DB_LEVEL_FULL, QRTLN_OPERATION_TYPE_NOTES); }

    void restore(DB_OPERATION_LEVEL level, QRTLN_OPERATION_TYPE type) const {
        g_sQRTLN_Global.eI_OperationType = DB_TYPE_RST;
        g_sQRTLN_Global.eI_OperationLevel = level;
        g_sQRTLN_Global.eI_BackupType = type;
        FIFOItemExists(g_sQRTLN_Global.lhNotesFileList, ""); // the cursor of an earlier case
    }

    std::string full(std::string text) const {
        for (std::size_t at = text.find('@'); at != std::string::npos; at = text.find('@')) {
            text.replace(at, 1, server.folder.path());
        }
        return text;
    }
    void set(char (&field)[kPathSize], const std::string& text) const {
        copyText(field, full(text).c_str());
    }
    void queue(const std::vector<std::string>& names) const {
        server.drain();
        for (const std::string& name : names) {
            pushPath(g_sQRTLN_Global.lhNotesFileList, full(name).c_str(), DB_BACKUP_FILE_TYPE_DB);
        }
    }

    // Announces a file; `target` receives the rewritten path.
    int setFile(const std::string& file, const std::string& directory = "/") {
        char szFile[kPathSize];
        EXPECT_TRUE(copyText(szFile, full(file).c_str()));
        const int result = QRTLN_SetFile(szFile, full(directory).c_str());
        target = szFile;
        return result;
    }
    int setDirectory(const std::string& directory) {
        char szDirectory[kPathSize];
        EXPECT_TRUE(copyText(szDirectory, full(directory).c_str()));
        const int result = QRTLN_SetDirectory(szDirectory);
        target = szDirectory;
        return result;
    }
    bool went(int number, const std::string& file) const {
        return messages.hasTrace("QRTLN_SetFile(): Go for RESTORE(" + std::to_string(number) +
                                 ") [" + full(file) + "]...");
    }

    MessageCapture messages;
    FakeServer server; // resets the record but the callbacks
    std::string target;
};

// Lists of names are texts, separated by blanks.
std::vector<std::string> split(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

TEST_F(RestorePlacement, ArgumentsChooseTheWholeSystemOrNames) {
    struct Case {
        DB_OPERATION_LEVEL level;
        const char* arguments;
        int result;
        QRTLN_OPERATION_TYPE type;
        const char* queued;
        const char* error;
    };
    const auto whole = QRTLN_OPERATION_TYPE_NOTES;
    const auto names = QRTLN_OPERATION_TYPE_PARTICULAR;
    const char* const unknown = "QRTLN_InitRestore(): Unknown Full restore level.";
    const char* const none =
        "QRTLN_InitRestore: ERROR: No files found which match input QRT arguments";
    const Case cases[] = {
        {DB_LEVEL_FULL, "NOTES", 3000, whole, "", ""},
        {DB_LEVEL_COPY, "QRTLN:NOTES.x @/data/a.nsf", 3000, whole, "", ""},
        {DB_LEVEL_INCR, "NOTES", 3000, whole, "", ""},
        {DB_LEVEL_DIFF, "NOTES", 1000, names, "", unknown},
        {DB_LEVEL_SLCT, "NOTES", 1000, names, "", unknown},
        {DB_LEVEL_FULL, "QRTLN:@/data/lost.nsf", 3000, names, "@/data @/data/lost.nsf", ""},
        // A directory that cannot be read drops its argument.
        {DB_LEVEL_FULL, "@/gone/a.nsf @/data/a.nsf", 3000, names, "@/data @/data/a.nsf", ""},
        // An incremental one takes them as they stand.
        {DB_LEVEL_INCR, "QRTLN:@/gone/a.nsf b", 3000, names, "@/gone/a.nsf b", ""},
        {DB_LEVEL_FULL, "", 1000, names, "", none},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments + std::to_string(c.level));
        restore(c.level, whole);
        server.drain();
        for (const std::string& argument : split(full(c.arguments))) {
            server.addArgument(argument);
        }
        EXPECT_EQ(QRTLN_InitRestore(), c.result);
        EXPECT_EQ(g_sQRTLN_Global.eI_BackupType, c.type);
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        EXPECT_EQ(takeErrorText(), c.error);
        std::vector<std::string> queued;
        for (const auto& [name, kind] : server.drain()) {
            queued.push_back(name);
            EXPECT_EQ(kind == DB_BACKUP_FILE_TYPE_LOG, c.level == DB_LEVEL_INCR);
        }
        EXPECT_EQ(queued, split(full(c.queued)));
    }
}

TEST_F(RestorePlacement, DirectoriesKeepTheirPlaceOrGoUnderTmpDir) {
    struct Case {
        DB_OPERATION_LEVEL level;
        QRTLN_OPERATION_TYPE type;
        const char* relocation;
        const char* tmpDir;
        std::string directory;
        std::string target; // empty: refused
    };
    const auto whole = QRTLN_OPERATION_TYPE_NOTES;
    const auto particular = QRTLN_OPERATION_TYPE_PARTICULAR;
    const Case cases[] = {
        {DB_LEVEL_INCR, particular, "/r", "@/tmp", "@/data/m", "@/data/m"},
        {DB_LEVEL_FULL, whole, "", "@/tmp", "@/data/m", "@/data/m"},
        {DB_LEVEL_FULL, whole, "/r", "@/tmp", "@/data/m", "@/tmp/m"},
        {DB_LEVEL_FULL, particular, "", "@/tmp", "@/data/m/s", "@/tmp/m/s"},
        {DB_LEVEL_FULL, particular, "/r", "@/tmp/", "@/data/m/", "@/tmp/m"},
        {DB_LEVEL_FULL, particular, "", "@/tmp", "@/data", "@/tmp"},
        {DB_LEVEL_FULL, particular, "", "@/tmp/", "@/data/", "@/tmp"},
        {DB_LEVEL_FULL, particular, "", "@/tmp", "\\\\?\\@/data/m", "\\\\?\\@/tmp/m"},
        {DB_LEVEL_FULL, particular, "", "@/tmp", "\\\\?\\@/data", "\\\\?\\@/tmp"},
        // A name that only begins like the data directory counts as inside.
        {DB_LEVEL_FULL, particular, "", "@/tmp", "@/data2/m", "@/tmp//m"},
        {DB_LEVEL_FULL, particular, "/r", "@/tmp", "@/data2", "@/tmp"},
        // Outside the data directory.
        {DB_LEVEL_FULL, particular, "", "@/tmp/", "/ext/m", "@/tmp/"},
        {DB_LEVEL_FULL, particular, "/r", "@/tmp", "/ext/m", "/ext/m"},
        {DB_LEVEL_FULL, whole, "/r", "@/tmp", "/r/data/m", "/r/data/m"},
        {DB_LEVEL_FULL, particular, "", "@/tmp", "", "@/tmp"},
        {DB_LEVEL_FULL, particular, "", "@/tmp", "@/data/m/../../etc", ""},
        {DB_LEVEL_FULL, particular, "", "", "@/data/m", ""},
        {DB_LEVEL_FULL, particular, "", "", "/ext/m", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.directory + " " + c.relocation);
        restore(c.level, c.type);
        set(g_sQRTLN_Global.szRelocationDir, c.relocation);
        set(g_sQRTLN_Global.szTmpDir, c.tmpDir);
        EXPECT_EQ(setDirectory(c.directory), c.target.empty() ? 1000 : 3000);
        EXPECT_EQ(target, full(c.target.empty() ? c.directory : c.target));
        EXPECT_EQ(takeErrorText().empty(), !c.target.empty());
    }
    set(g_sQRTLN_Global.szTmpDir, "/" + std::string(1000, 't'));
    EXPECT_EQ(setDirectory("@/data/" + std::string(30, 'm')), 1000);
    EXPECT_THAT(takeErrorText(), StartsWith("QRTLN_SetDirectory(): directory path is too long"));
}

TEST_F(RestorePlacement, DatabasesArePlacedUnderTmpDir) {
    struct Case {
        const char* file;
        const char* target; // "": not valid
        bool activate = false;
        const char* tmpDir = "@/tmp";
    };
    const Case cases[] = {
        {"@/data/m/x.nsf", "@/tmp/m/x.nsf"},
        {"@/data/x.NTF", "@/tmp/x.NTF", false, "@/tmp/"},
        {"@/data/x.ncf", "@/data/x.ncf"}, // no database for a restore
        {"@/data/m/notes.ini", "@/data/m/notes.ini", true},
        {"/ext/x.nsf", "/ext/x.nsf"},
        // Cut by the length of TMP_DIR, whatever the path begins with.
        {"@/tmp/m/x.nsf", "@/tmp//m/x.nsf", true},
        {"@/tmp/m/x.nsf", "@/tmp/m/x.nsf", true, "@/tmp/"},
        {"@/abc/m/x.nsf", "@/tmp//m/x.nsf", true},
        {"/x.nsf", "", true}, // shorter than TMP_DIR
        {"x.nsf", "", true},
        {"@/data/../x.nsf", ""},
        {"@/data/m/../../x.nsf", ""},
        {"@/abc/../x.nsf", "", true},
        {"@/data/x.nsf", "", false, ""},
        {"@/data/m/x.nsf", "@/tmp/m/x.nsf", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + c.tmpDir);
        g_sQRTLN_Global.bActivate = c.activate;
        set(g_sQRTLN_Global.szTmpDir, c.tmpDir);
        const bool valid = *c.target != '\0';
        EXPECT_EQ(setFile(c.file), valid ? 3000 : 1000);
        EXPECT_EQ(target, full(valid ? c.target : c.file)) << "unchanged when refused";
        EXPECT_EQ(takeErrorText(),
                  valid ? ""
                        : "QRTLN_SetFile(): File full path [" + full(c.file) + "] is not valid.");
        if (target.starts_with(full("@/tmp"))) {
            EXPECT_TRUE(std::filesystem::is_directory(target.substr(0, target.rfind('/'))));
        }
    }
    EXPECT_TRUE(messages.hasLog(full("Avoid writing NSF file [@/data/m/x.nsf] under notes data "
                                     "directory")));
    EXPECT_TRUE(messages.hasLog(full("Target path of NSF file [/ext/x.nsf] is not under Notes Data "
                                     "directory [@/data/]")));
    EXPECT_TRUE(messages.hasLog(full("Activation is requested so first restore file under temp "
                                     "diretory [@/tmp]")));
    g_sQRTLN_Global.bRecovery = TRUE;
    EXPECT_EQ(setFile("@/tmp/m/x.nsf"), 3000);
    EXPECT_TRUE(messages.hasLog(full("Recovery is requested so first restore file under temp "
                                     "diretory [@/tmp]")));
    server.folder.write("tmp/file");
    EXPECT_EQ(setFile("@/data/file/s/x.nsf"), 1000);
    EXPECT_EQ(takeErrorText(), "File exists");
}

// What is weighed is TMP_DIR with the last component and its delimiter, not the path that comes of
// them: it refuses a path that would fit and passes one that does not.
TEST_F(RestorePlacement, LengthTestWeighsTheLastComponentAlone) {
    struct Case {
        std::size_t tmpDir; // its length
        bool delimited;     // it ends in "/"
        std::string below;  // below the data directory
        int length;         // in the text; 0: not too long
    };
    const Case cases[] = {
        {1000, false, std::string(26, 'x') + ".nsf", 1032},
        {1000, true, std::string(23, 'x') + ".nsf", 1029}, // would fit with its NUL
        {1000, true, std::string(22, 'x') + ".nsf", 0},
        {1000, false, "mmmm/" + std::string(19, 'x') + ".nsf", 1030}, // the whole does not fit
        {1000, false, "mm/" + std::string(19, 'x') + ".nsf", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.below);
        std::string tmpDir = server.folder.path();
        while (tmpDir.size() + 101 < c.tmpDir) {
            tmpDir += "/" + std::string(100, 't');
        }
        tmpDir += "/" + std::string(c.tmpDir - tmpDir.size() - 1 - (c.delimited ? 1 : 0), 't') +
                  (c.delimited ? "/" : "");
        ASSERT_EQ(tmpDir.size(), c.tmpDir);
        set(g_sQRTLN_Global.szTmpDir, tmpDir);
        EXPECT_EQ(setFile("@/data/" + c.below), c.length == 0 ? 3000 : 1000);
        EXPECT_EQ(takeErrorText(),
                  c.length == 0 ? ""
                                : full("QRTLN_SetFile(): File full path [@/data/" + c.below +
                                       "] is too long: " + std::to_string(c.length) + " > 1028"));
    }
}

TEST_F(RestorePlacement, SixWaysSelectAFile) {
    const auto whole = QRTLN_OPERATION_TYPE_NOTES;
    const auto particular = QRTLN_OPERATION_TYPE_PARTICULAR;
    struct Case {
        DB_OPERATION_LEVEL level;
        QRTLN_OPERATION_TYPE type;
        std::vector<std::string> list;
        const char* file;
        int number; // 0: not selected
        const char* directory = "/";
        const char* relocation = "";
    };
    const Case cases[] = {
        {DB_LEVEL_INCR, whole, {}, "/l/S0000001.TXN", 1},
        {DB_LEVEL_INCR, whole, {}, "/l/nlogctrl.lfh", 0},
        {DB_LEVEL_INCR, particular, {"/q/a.txn", "/l/s0000001.TXN"}, "/k/S0000001.txn", 2},
        {DB_LEVEL_INCR, particular, {"/l/S0000001.TXN"}, "/l/S0000002.TXN", 0},
        {DB_LEVEL_FULL, whole, {}, "@/data/x.id", 3},
        {DB_LEVEL_FULL, whole, {"*/a.id"}, "@/data/a.id", 3},
        {DB_LEVEL_FULL, whole, {"*/a.id"}, "@/data/b.id", 0},
        {DB_LEVEL_FULL, particular, {"/b", "@/data/a.nsf", "/c"}, "@/data/a.nsf", 4},
        {DB_LEVEL_FULL, particular, {"@/data/A.nsf"}, "@/data/a.nsf", 0},
        {DB_LEVEL_FULL, particular, {"/b", "@/data/m/a.nsf"}, "@/tmp/m/a.nsf", 5},
        {DB_LEVEL_FULL, particular, {"@/data/m/a.nsf"}, "/r/m/a.nsf", 5, "/", "/r"},
        {DB_LEVEL_FULL, particular, {"a"}, "@/tmp/m/a.nsf", 0}, // an entry shorter than the part
        // The root is found anywhere, but cut off the start.
        {DB_LEVEL_FULL, particular, {"/d/x/r/m/a.id"}, "/x/r/m/a.id", 5, "/", "/r"},
        {DB_LEVEL_FULL, particular, {"/d/m/a.id"}, "/x/r/m/a.id", 0, "/", "/r"},
        {DB_LEVEL_FULL, particular, {"@/data/m/a.nsf"}, "/q/a.nsf", 6, "@/data/m/"},
        {DB_LEVEL_FULL, particular, {"@/data/*"}, "/q/a.nsf", 6, "@/data/m"},
        {DB_LEVEL_FULL, particular, {"@/data/m/a.nsf"}, "/q/a.nsf", 0, "@/data"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + std::to_string(c.number));
        restore(c.level, c.type);
        queue(c.list);
        set(g_sQRTLN_Global.szRelocationDir, c.relocation);
        messages.clear();
        EXPECT_EQ(setFile(c.file, c.directory), c.number == 0 ? 12 : 3000);
        for (int number = 1; number <= 6; ++number) {
            EXPECT_EQ(went(number, c.file), number == c.number) << number;
        }
        if (c.level == DB_LEVEL_FULL) {
            EXPECT_EQ(setFile(c.file, c.directory), c.number == 0 ? 12 : 3000)
                << "the next search starts at the first entry again";
        }
        EXPECT_EQ(takeErrorText(), "");
    }
}

TEST_F(RestorePlacement, ASkippedDatabaseHasItsDirectoryAllTheSame) {
    restore(DB_LEVEL_FULL, QRTLN_OPERATION_TYPE_PARTICULAR);
    queue({"@/data/other.nsf"});
    EXPECT_EQ(setFile("@/data/m/a.nsf"), 12);
    EXPECT_EQ(target, full("@/tmp/m/a.nsf"));
    EXPECT_TRUE(server.folder.exists("tmp/m"));
}

TEST_F(RestorePlacement, ADirectoryTooLongForTheNameSelectsNothing) {
    restore(DB_LEVEL_FULL, QRTLN_OPERATION_TYPE_PARTICULAR);
    queue({"*"});
    EXPECT_EQ(setFile("/q/a.id", "/" + std::string(1022, 'd')), 12);
    EXPECT_EQ(setFile("/q/a.id", "/" + std::string(1021, 'd')), 3000);
}

// The cursor stays behind the match: files in the order of the list are all found, also with equal
// names; one out of order wraps only after a file that was skipped.
TEST_F(RestorePlacement, IncrementalSearchGoesOnWhereTheLastOneEnded) {
    restore(DB_LEVEL_INCR, QRTLN_OPERATION_TYPE_PARTICULAR);
    queue({"/a/1.txn", "/a/2.txn", "/b/1.txn"});
    struct Case {
        const char* file;
        int result;
    };
    for (const Case& c : {Case{"/x/1.txn", 3000}, Case{"/x/2.txn", 3000}, Case{"/x/1.txn", 3000},
                          Case{"/x/1.txn", 12}, // behind the last one: to the end
                          Case{"/x/2.txn", 3000}, Case{"/x/2.txn", 12}, Case{"/x/2.txn", 3000}}) {
        EXPECT_EQ(setFile(c.file), c.result) << c.file;
    }
    // A new restore does not start in the middle of this one's list.
    g_sQRTLN_Global.eI_OperationLevel = DB_LEVEL_INCR;
    server.drain();
    for (const char* name : {"1.txn", "2.txn", "3.txn"}) {
        server.addArgument(name);
    }
    EXPECT_EQ(QRTLN_InitRestore(), 3000);
    EXPECT_EQ(setFile("/x/1.txn"), 3000);
}

} // namespace
