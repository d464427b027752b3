#include "qrt_lotus_notes/qrtln_f/backup_initialisation.h"

#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "tests/interface/own_process.h"
#include "tests/qrtln_f/fake_server.h"

namespace {

int s_begins; // calls of NSFBeginArchivingLogs
int s_terms;  // calls of NotesTerm
STATUS s_beginStatus;

class BackupInitialisation : public FakeServer {
  protected:
    BackupInitialisation() {
        s_begins = s_terms = s_beginStatus = 0;
        notes_api.NotesTerm = [] { ++s_terms; };
        notes_api.NSFBeginArchivingLogs = []() -> STATUS {
            ++s_begins;
            return s_beginStatus;
        };
    }
    ~BackupInitialisation() override { releaseDBIIDIndex(); }

    int start(const std::string& arguments) {
        setArguments(arguments);
        const int result = QRTLN_InitBackup();
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        return result;
    }
};

TEST_F(BackupInitialisation, ArgumentsChooseTheWholeSystemOrParticularFiles) {
    struct Case {
        const char* arguments;
        QRTLN_OPERATION_TYPE type;
        const char* files; // without directories
        const char* error = "";
    };
    const auto whole = QRTLN_OPERATION_TYPE_NOTES;
    const auto particular = QRTLN_OPERATION_TYPE_PARTICULAR;
    const char* const everything = "@/data/a.nsf @/data/m/b.nsf @/data/m/s/c.nsf";
    const char* const none = "QRTLN_InitBackup: No files found which match input QRT arguments";
    const Case cases[] = {
        {"NOTES", whole, everything},
        {"QRTLN:NOTESX", whole, everything},
        {"QRTLN:/", whole, everything},
        {"@/data/m", particular, "@/data/m/b.nsf @/data/m/s/c.nsf"},
        {"QRTLN:@/data/a.nsf", particular, "@/data/a.nsf"},
        {"@/data/m/*.*", particular, "@/data/m/b.nsf @/data/m/s/c.nsf"},
        {"@/data/m/*.txt", particular, "@/data/m/s/y.txt @/data/m/x.txt"},
        // What a plain argument found stays and is found again; a wildcard is dropped, and what
        // follows is not looked at.
        {"@/data/a.nsf @/data/m/*.txt NOTES @/data/no.nsf", whole,
         "@/data/a.nsf @/data/a.nsf @/data/m/b.nsf @/data/m/s/c.nsf"},
        {"@/data/m/x.txt", particular, "", // not a Domino file
         "getNotesFileList(): There are no files matching requested patterns"},
        {"@/data/d*", particular, "", none}, // a directory
        {"@/data/a.nsf QRTLN:/no/100%such.nsf", particular, "@/data/a.nsf",
         "QRTLN_InitBackup: File not found [/no/100%such.nsf]"},
    };
    addAll("a.nsf m/b.nsf m/s/c.nsf m/x.txt m/s/y.txt notes.ini");
    folder.makeDirectory("data/d.nsf");
    inOwnProcess([&] { // notes.ini comes once in a process
        for (const Case& c : cases) {
            SCOPED_TRACE(c.arguments);
            s_terms = 0;
            EXPECT_EQ(start(c.arguments), *c.error == '\0' ? DB_NUM_I_OK : DB_NUM_E_FAILED);
            EXPECT_EQ(g_sQRTLN_Global.eI_BackupType, c.type);
            EXPECT_EQ(error(), c.error);
            EXPECT_EQ(s_terms, std::strstr(c.error, "not found") != nullptr ? 1 : 0);
            g_sQRTLN_Global.bNotesInitialized = TRUE;
            std::string files;
            for (const std::string& name : split(sortedItems())) {
                const bool counts =
                    std::filesystem::is_regular_file(full(name)) && !name.ends_with(".ini");
                files += counts ? " " + name : "";
            }
            EXPECT_EQ(files, (*c.files == '\0' ? "" : " ") + std::string(c.files));
        }
        EXPECT_EQ(s_begins, 0);
    });
}

TEST_F(BackupInitialisation, ArchivingSessionIsBegunAsLevelAndFlagSay) {
    struct Case {
        DB_OPERATION_LEVEL level;
        BOOL withLogs;
        WORD style;
        STATUS beginStatus;
        int expected;
        int begins;
    };
    const Case cases[] = {
        {DB_LEVEL_FULL, FALSE, kLogStyleArchive, 0, DB_NUM_I_OK, 0}, // the flag is set later
        {DB_LEVEL_FULL, TRUE, kLogStyleArchive, 0, DB_NUM_I_OK, 1},
        {DB_LEVEL_FULL, TRUE, kLogStyleArchive, 1, DB_NUM_E_FAILED, 1},
        {DB_LEVEL_FULL, TRUE, kLogStyleCircular, 0, DB_NUM_I_OK, 0},
        {DB_LEVEL_COPY, TRUE, kNoLogging, 0, DB_NUM_I_OK, 0},
        {DB_LEVEL_INCR, FALSE, kLogStyleArchive, 0, DB_NUM_I_OK, 1},
        {DB_LEVEL_INCR, FALSE, kLogStyleCircular, 0, DB_NUM_I_CIRCULAR_LOG, 0},
        {DB_LEVEL_INCR, FALSE, kNoLogging, 0, DB_NUM_E_FAILED, 0},
    };
    add("a.nsf");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.level) + " " + std::to_string(c.style));
        inOwnProcess([&] { // which has no session yet
            g_sQRTLN_Global.eI_OperationLevel = c.level;
            g_sQRTLN_Global.bWithArchiveLogs = c.withLogs;
            s_style = c.style;
            s_beginStatus = c.beginStatus;
            EXPECT_EQ(start("NOTES"), c.expected);
            EXPECT_EQ(s_begins, c.begins);
        });
    }
}

} // namespace
