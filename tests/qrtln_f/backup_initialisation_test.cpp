#include "qrt_lotus_notes/qrtln_f/backup_initialisation.h"

#include <gmock/gmock.h>
#include <set>

#include "qrt_lotus_notes/qrtln_f/dbiid_index.h"
#include "tests/interface/own_process.h"
#include "tests/qrtln_f/fake_server.h"
#include "tests/support/message_capture.h"

namespace {

// Names below the data directory; directories and what comes once in a process are left out.
std::multiset<std::string> files(const FakeServer& server) {
    std::multiset<std::string> names;
    const std::string data = server.data("");
    for (const std::string& name : server.drainNames()) {
        if (name.starts_with(data) && name.find('.', data.size()) != std::string::npos &&
            !name.ends_with("/notes.ini")) {
            names.insert(name.substr(data.size()));
        }
    }
    return names;
}

TEST(BackupInitialisation, ArgumentsChooseTheWholeSystemOrParticularFiles) {
    using Names = std::multiset<std::string>;
    const Names everything = {"a.nsf", "m/b.nsf", "m/s/c.nsf"};
    struct Case {
        std::vector<std::string> arguments; // "@" stands for the data directory
        QRTLN_OPERATION_TYPE type;
        Names expected;
    };
    const auto whole = QRTLN_OPERATION_TYPE_NOTES;
    const auto particular = QRTLN_OPERATION_TYPE_PARTICULAR;
    const Case cases[] = {
        {{"NOTES"}, whole, everything},
        {{"QRTLN:NOTES"}, whole, everything},
        {{"NOTESX"}, whole, everything},
        {{"/"}, whole, everything},
        {{"QRTLN:/"}, whole, everything},
        {{"@/m"}, particular, {"m/b.nsf", "m/s/c.nsf"}},
        {{"QRTLN:@/a.nsf"}, particular, {"a.nsf"}},
        {{"@/m/x.txt"}, particular, {}}, // not a Domino file
        {{"@/m/*.*"}, particular, {"m/b.nsf", "m/s/c.nsf"}},
        {{"@/m/*t"}, particular, {"m/x.txt", "m/s/y.txt"}},
        {{"@/m/*.txt"}, particular, {"m/x.txt", "m/s/y.txt"}},
        {{"@/a.nsf", "@/m/b.nsf"}, particular, {"a.nsf", "m/b.nsf"}},
        // What a plain argument found stays and is found again; a wildcard is dropped, and what
        // follows is not looked at.
        {{"@/a.nsf", "@/m/*.txt", "NOTES", "@/no.nsf"},
         whole,
         {"a.nsf", "a.nsf", "m/b.nsf", "m/s/c.nsf"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments.front());
        inOwnProcess([&] {
            FakeServer server;
            for (const char* name : {"a.nsf", "m/b.nsf", "m/s/c.nsf", "m/x.txt", "m/s/y.txt"}) {
                server.addFile(name);
            }
            for (std::string argument : c.arguments) {
                if (const auto at = argument.find('@'); at != std::string::npos) {
                    argument.replace(at, 1, server.folder.file("data"));
                }
                server.addArgument(argument);
            }
            EXPECT_EQ(QRTLN_InitBackup(), DB_NUM_I_OK);
            EXPECT_EQ(g_sQRTLN_Global.eI_BackupType, c.type);
            EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
            EXPECT_EQ(files(server), c.expected);
            EXPECT_EQ(FakeServer::s_begins, 0);
            releaseDBIIDIndex();
        });
    }
}

TEST(BackupInitialisation, OneArgumentThatNamesNothingFailsTheBackupAndEndsTheSession) {
    inOwnProcess([] {
        FakeServer server;
        server.addArgument(server.addFile("a.nsf"));
        server.addArgument("QRTLN:/no/100%such.nsf");
        EXPECT_EQ(QRTLN_InitBackup(), DB_NUM_E_FAILED);
        EXPECT_STREQ(g_sQRTLN_Global.szDBErrorMsg,
                     "QRTLN_InitBackup: File not found [/no/100%such.nsf]");
        EXPECT_EQ(FakeServer::s_terms, 1);
        EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
        releaseDBIIDIndex();
    });
}

TEST(BackupInitialisation, SelectionThatFindsNothingIsReported) {
    inOwnProcess([] {
        {
            FakeServer first; // notes.ini is queued here, once for the process
            first.addArgument("NOTES");
            EXPECT_EQ(QRTLN_InitBackup(), DB_NUM_I_OK);
        }
        FakeServer server;
        server.folder.makeDirectory("data/x.nsf");
        server.addArgument(server.folder.file("data") + "/*.nsf");
        EXPECT_EQ(QRTLN_InitBackup(), DB_NUM_E_FAILED);
        EXPECT_STREQ(g_sQRTLN_Global.szDBErrorMsg,
                     "QRTLN_InitBackup: No files found which match input QRT arguments");
        releaseDBIIDIndex();
    });
}

TEST(BackupInitialisation, ArchivingSessionIsBegunAsLevelAndFlagSay) {
    struct Case {
        const char* title;
        DB_OPERATION_LEVEL level;
        BOOL withLogs;
        WORD style;
        STATUS styleStatus;
        STATUS beginStatus;
        int expected;
        int begins;
    };
    constexpr auto kArchive = kLogStyleArchive;
    constexpr STATUS kNone = kNotesLoggingNotInEffect;
    const Case cases[] = {
        // The flag is set later.
        {"full", DB_LEVEL_FULL, FALSE, kArchive, 0, 0, DB_NUM_I_OK, 0},
        {"full with the flag", DB_LEVEL_FULL, TRUE, kArchive, 0, 0, DB_NUM_I_OK, 1},
        {"full, circular", DB_LEVEL_FULL, TRUE, kLogStyleCircular, 0, 0, DB_NUM_I_OK, 0},
        {"copy, no logging", DB_LEVEL_COPY, TRUE, 0, kNone, 0, DB_NUM_I_OK, 0},
        {"full, begin fails", DB_LEVEL_FULL, TRUE, kArchive, 0, 1, DB_NUM_E_FAILED, 1},
        {"differential", DB_LEVEL_DIFF, TRUE, kArchive, 0, 0, DB_NUM_I_OK, 0},
        {"incremental", DB_LEVEL_INCR, FALSE, kArchive, 0, 0, DB_NUM_I_OK, 1},
        {"circular", DB_LEVEL_INCR, FALSE, kLogStyleCircular, 0, 0, DB_NUM_I_CIRCULAR_LOG, 0},
        {"linear", DB_LEVEL_INCR, FALSE, kLogStyleLinear, 0, 0, DB_NUM_I_CIRCULAR_LOG, 0},
        {"no logging", DB_LEVEL_INCR, FALSE, 0, kNone, 0, DB_NUM_E_FAILED, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.title);
        inOwnProcess([&] {
            FakeServer server;
            server.addFile("a.nsf");
            server.addArgument("NOTES");
            g_sQRTLN_Global.eI_OperationLevel = c.level;
            g_sQRTLN_Global.bWithArchiveLogs = c.withLogs;
            FakeServer::s_style = c.style;
            FakeServer::s_styleStatus = c.styleStatus;
            FakeServer::s_beginStatus = c.beginStatus;
            EXPECT_EQ(QRTLN_InitBackup(), c.expected);
            EXPECT_EQ(FakeServer::s_begins, c.begins);
            EXPECT_EQ(g_sQRTLN_Global.lhArgumentFileList, nullptr);
            releaseDBIIDIndex();
        });
    }
}

} // namespace
