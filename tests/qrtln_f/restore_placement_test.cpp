#include "qrt_lotus_notes/qrtln_f/restore_placement.h"

#include "tests/qrtln_f/fake_server.h"

namespace {

class RestorePlacement : public FakeServer {
  protected:
    // Begins a full restore of particular items, but for the options in the text: "whole", "incr",
    // "diff", "copy", "activate", "recovery", "-R" and "tmp=" with their paths.
    void begin(const std::string& options, const std::string& list = "") const {
        const std::vector<std::string> given = split(options);
        const auto has = [&](const char* option) {
            return std::find(given.begin(), given.end(), option) != given.end();
        };
        const auto path = [&](const std::string& name, const std::string& otherwise) {
            const auto at = std::find_if(given.begin(), given.end(),
                                         [&](auto& option) { return option.starts_with(name); });
            return at == given.end() ? otherwise : at->substr(name.size());
        };
        QRTLN_Global& record = g_sQRTLN_Global;
        record.eI_OperationType = DB_TYPE_RST;
        record.eI_OperationLevel = has("incr")   ? DB_LEVEL_INCR
                                   : has("diff") ? DB_LEVEL_DIFF
                                   : has("copy") ? DB_LEVEL_COPY
                                                 : DB_LEVEL_FULL;
        record.eI_BackupType =
            has("whole") ? QRTLN_OPERATION_TYPE_NOTES : QRTLN_OPERATION_TYPE_PARTICULAR;
        record.bActivate = has("activate");
        record.bRecovery = has("recovery");
        set(record.szRelocationDir, path("-R", ""));
        set(record.szTmpDir, path("tmp=", "@/tmp"));
        setQueue(record.lhNotesFileList, list);
        FIFOItemExists(record.lhNotesFileList, ""); // the cursor of an earlier case
    }
    // Announces a file or, with a "/" at the end, a directory; returns the rewritten path, or what
    // was answered instead.
    std::string announce(const std::string& item, const std::string& directory = "/") const {
        char szItem[kPathSize];
        set(szItem, item);
        const bool isFile = !item.ends_with('/');
        const int result =
            isFile ? QRTLN_SetFile(szItem, full(directory).c_str()) : QRTLN_SetDirectory(szItem);
        if (result == DB_NUM_I_OK) {
            return szItem;
        }
        EXPECT_TRUE(result == DB_NUM_I_NOT_SELECTED || szItem == full(item)) << "rewritten";
        return result == DB_NUM_I_NOT_SELECTED ? "not selected" : takeErrorText();
    }
};

TEST_F(RestorePlacement, ArgumentsChooseTheWholeSystemOrNames) {
    const struct {
        const char* options;
        const char* arguments;
        QRTLN_OPERATION_TYPE type;
        const char* queued;
        const char* error = "";
    } cases[] = {
        {"", "QRTLN:NOTES.x @/data/a.nsf", QRTLN_OPERATION_TYPE_NOTES, ""},
        {"copy", "NOTES", QRTLN_OPERATION_TYPE_NOTES, ""},
        {"diff", "NOTES", QRTLN_OPERATION_TYPE_PARTICULAR, "",
         "QRTLN_InitRestore(): Unknown Full restore level."},
        // A directory that cannot be read drops its argument.
        {"", "@/gone/a.nsf QRTLN:@/data/lost.nsf", QRTLN_OPERATION_TYPE_PARTICULAR,
         "@/data:1 @/data/lost.nsf:0"},
        // An incremental one takes them as they stand.
        {"incr", "QRTLN:@/gone/a.nsf b", QRTLN_OPERATION_TYPE_PARTICULAR, "@/gone/a.nsf:2 b:2"},
        {"", "", QRTLN_OPERATION_TYPE_PARTICULAR, "",
         "QRTLN_InitRestore: ERROR: No files found which match input QRT arguments"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        begin(c.options);
        setArguments(c.arguments);
        EXPECT_EQ(QRTLN_InitRestore(), *c.error == '\0' ? 3000 : 1000);
        EXPECT_EQ(g_sQRTLN_Global.eI_BackupType, c.type);
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        EXPECT_EQ(takeErrorText(), c.error);
        EXPECT_EQ(drain(g_sQRTLN_Global.lhNotesFileList, true, true), c.queued);
    }
}

TEST_F(RestorePlacement, ItemsKeepTheirPlaceOrGoUnderTmpDir) {
    const std::string invalid = "QRTLN_SetFile(): File full path [*] is not valid.";
    const std::string tooLong = "QRTLN_SetFile(): File full path [*] is too long: ";
    std::string deep = "@/"; // 999 bytes: with one more it is a TMP_DIR
    while (full(deep).size() < 900) {
        deep += std::string(90, 't') + "/";
    }
    deep += std::string(999 - full(deep).size(), 't');
    const std::string x19(19, 'x');
    const struct {
        std::string options;
        std::string item;
        std::string target; // or the error, in which "*" stands for the item
    } cases[] = {
        {"whole", "@/data/m/", "@/data/m/"},
        {"whole -R/r", "@/data/m/", "@/tmp/m"},
        {"-R/r tmp=@/tmp/", "@/data/m/", "@/tmp/m"},
        {"tmp=@/tmp/", "@/data/", "@/tmp"},
        {"", "\\\\?\\@/data/m/", "\\\\?\\@/tmp/m"},
        // A name that only begins like the data directory counts as inside.
        {"", "@/data2/m/", "@/tmp//m"},
        // Outside the data directory.
        {"tmp=@/tmp/", "/ext/m/", "@/tmp/"},
        {"-R/r", "/ext/m/", "/ext/m/"},
        {"whole -R/r", "/r/data/m/", "/r/data/m/"},
        {"", "@/data/m/../../etc/", "QRTLN_SetDirectory(): directory path is not valid: [*]"},
        {"tmp=", "@/data/m/",
         "QRTLN_SetDirectory(): there is no TMP_DIR to place the directory in: [*]"},
        {"tmp=" + deep, "@/data/" + x19 + x19 + "/",
         "QRTLN_SetDirectory(): directory path is too long below TMP_DIR: [*]"},
        // Databases.
        {"whole", "@/data/m/x.nsf", "@/tmp/m/x.nsf"},
        {"whole", "@/data/x.ncf", "@/data/x.ncf"}, // none for a restore
        // Cut by the length of TMP_DIR, whatever the path begins with.
        {"whole activate", "@/abc/m/x.nsf", "@/tmp//m/x.nsf"},
        {"whole recovery tmp=@/tmp/", "@/tmp/m/x.nsf", "@/tmp/m/x.nsf"},
        {"whole activate", "/x.nsf", invalid}, // shorter than TMP_DIR
        {"whole", "@/data/m/../../x.nsf", invalid},
        {"whole tmp=", "@/data/x.nsf", invalid},
        // What is weighed is TMP_DIR with the last component and its delimiter, not the path that
        // comes of them: it refuses a path that would fit and passes one that does not.
        {"whole tmp=" + deep + "t", "@/data/xxxxxxx" + x19 + ".nsf", tooLong + "1032 > 1028"},
        {"whole tmp=" + deep + "/", "@/data/xxxx" + x19 + ".nsf", tooLong + "1029 > 1028"},
        {"whole tmp=" + deep + "/", "@/data/xxx" + x19 + ".nsf", deep + "/xxx" + x19 + ".nsf"},
        {"whole tmp=" + deep + "t", "@/data/mmmm/" + x19 + ".nsf", tooLong + "1030 > 1028"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options + " " + c.item);
        begin(c.options);
        const std::string target = announce(c.item);
        EXPECT_EQ(full(target), full(c.target.find("(): ") == std::string::npos
                                         ? c.target
                                         : replaced(c.target, "*", c.item)));
        EXPECT_EQ(takeErrorText(), "");
        if (c.item.ends_with(".nsf") && target.starts_with(full("@/tmp"))) {
            EXPECT_TRUE(std::filesystem::is_directory(target.substr(0, target.rfind('/'))));
        }
    }
    EXPECT_EQ(logsWith("Activation is requested so first restore file under temp diretory"), 2);
    EXPECT_EQ(logsWith("Recovery is requested so first restore file under temp diretory"), 1);
}

TEST_F(RestorePlacement, SixWaysSelectAFile) {
    const std::string long1021(1021, 'd');
    const struct {
        const char* options;
        const char* list;
        const char* file;
        int number; // 0: not selected
        std::string directory = "/";
    } cases[] = {
        {"incr whole", "", "/l/S0000001.TXN", 1},
        {"incr whole", "", "/l/nlogctrl.lfh", 0},
        {"incr", "/q/a.txn /l/s0000001.TXN", "/k/S0000001.txn", 2},
        {"whole", "", "@/data/x.id", 3},
        {"whole", "*/a.id", "@/data/b.id", 0},
        {"", "/b @/data/a.nsf /c", "@/data/a.nsf", 4},
        {"", "/b @/data/m/a.nsf", "@/tmp/m/a.nsf", 5},
        {"-R/r", "@/data/m/a.nsf", "/r/m/a.nsf", 5},
        // The root is found anywhere, but cut off the start.
        {"-R/r", "/d/x/r/m/a.id", "/x/r/m/a.id", 5},
        {"", "@/data/m/a.nsf", "/q/a.nsf", 6, "@/data/m/"},
        {"", "@/data/m/a.nsf", "/q/a.nsf", 0, "@/data"},
        // A skipped database has its directory all the same.
        {"", "@/data/other.nsf", "@/data/skipped/a.nsf", 0},
        {"", "*", "/q/a.id", 6, "/" + long1021},
        {"", "*", "/q/a.id", 0, "/x" + long1021}, // too long for the name
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + std::to_string(c.number));
        begin(c.options, c.list);
        messages.clear();
        EXPECT_EQ(announce(c.file, c.directory) == "not selected", c.number == 0);
        for (int number = 1; number <= 6; ++number) {
            EXPECT_EQ(messages.hasTrace(full("QRTLN_SetFile(): Go for RESTORE(" +
                                             std::to_string(number) + ") [" + c.file + "]...")),
                      number == c.number);
        }
        if (g_sQRTLN_Global.eI_OperationLevel == DB_LEVEL_FULL) {
            EXPECT_EQ(announce(c.file, c.directory) == "not selected", c.number == 0)
                << "the next search starts at the first entry again";
        }
    }
    EXPECT_TRUE(folder.exists("tmp/skipped"));
}

// The cursor stays behind the match: files in the order of the list are all found, also with equal
// names; one out of order wraps only after a file that was skipped.
TEST_F(RestorePlacement, IncrementalSearchGoesOnWhereTheLastOneEnded) {
    begin("incr", "/a/1.txn /a/2.txn /b/1.txn");
    for (const std::string file : {"1", "2", "1", "1 skipped", "2", "2 skipped", "2"}) {
        EXPECT_EQ(announce("/x/" + file.substr(0, 1) + ".txn") == "not selected",
                  file.ends_with("skipped"))
            << file;
    }
    // A new restore does not start in the middle of this one's list.
    setQueue(g_sQRTLN_Global.lhNotesFileList, "");
    setArguments("1.txn 2.txn 3.txn");
    EXPECT_EQ(QRTLN_InitRestore(), 3000);
    EXPECT_EQ(announce("/x/1.txn"), "/x/1.txn");
}

} // namespace
