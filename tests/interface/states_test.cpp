// The entry points in states and with arguments that no well-behaved client has.
#include <cstring>
#include <gmock/gmock.h>

#include "tests/interface/module_host.h"
#include "tests/interface/own_process.h"

namespace {

constexpr char kNotInitialized[] = "The Notes runtime system is not initialized!";
constexpr char kNotExpected[] = "This operation type is not expected";

using States = Host;

struct StatesWithoutLog : Host {
    StatesWithoutLog() : Host("none") {}
};

TEST_IN_OWN_PROCESS(States, InfoIdentifiesTheModuleAndLeavesTheRestAlone) {
    char untouched[] = "untouched";
    TYPE_DB_Info info{};
    info.cpDBSubVersion = untouched;
    info.bProvideCompression = 77;
    info.bProvideUnicode = 1;
    info.eDBType = DB_INFO;
    EXPECT_EQ(module.GetInfo(&info), DB_NUM_I_OK);
    EXPECT_STREQ(info.cpDBClient, "NUVOR Domino Server R8/R9/R10/R11 Backup Client");
    EXPECT_STREQ(info.cpDBVersion, "5.2.0.24");
    EXPECT_THAT(info.cpDBRelDate, ::testing::MatchesRegex("qrtln [0-9.]+, .*"));
    EXPECT_THAT(info.cpDBRelDate, ::testing::Not(::testing::HasSubstr("/")));
    EXPECT_EQ(info.eDBType, DB_FILE_PREPARE);
    EXPECT_EQ(info.bProvideUnicode, 0);
    EXPECT_EQ(info.cpDBSubVersion, untouched);
    EXPECT_EQ(info.bProvideCompression, 77);
}

// Calls every entry point that needs a running operation; none may crash, each must refuse.
void expectEverythingRefused(Module& module) {
    char szItem[1028] = "/some/item.nsf";
    char szFile[1028] = "";
    module.error();
    EXPECT_EQ(module.GetItem(nullptr, nullptr, szItem), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), kNotInitialized);
    EXPECT_EQ(module.PrepareItem(szItem, szFile), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), kNotInitialized);
    EXPECT_EQ(module.SetItem(DB_ITEM_TYPE_FILE, szItem), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), kNotInitialized);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_E_FAILED);
        EXPECT_EQ(module.error(), kNotInitialized);
    }
    sFormat format{};
    EXPECT_EQ(module.DirItem(&format), DB_NUM_I_COMPLETE);
    EXPECT_EQ(module.Terminate(), DB_NUM_I_OK);
}

TEST_IN_OWN_PROCESS(States, EntryPointsRefuseBeforeAnyOperationAfterAFailedStartAndAfterTheClose) {
    server.fillLog();
    expectEverythingRefused(module);
    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
    EXPECT_EQ(module.error(), kNotInitialized);

    EXPECT_EQ(openBackup(DB_LEVEL_FULL, {}), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), "There is no database file arguments");
    expectEverythingRefused(module);
    module.close("STATUS=1");

    module.error();
    EXPECT_EQ(openBackup(DB_LEVEL_FULL, {"DATABASE=/no/such.nsf"}), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), "QRTLN_InitBackup: File not found [/no/such.nsf]");
    expectEverythingRefused(module);

    // Over an unclosed one, then closed twice with items pending.
    ASSERT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_I_OK) << module.error();
    for (int i = 0; i < 3; ++i) {
        EXPECT_NE(module.get(), "");
    }
    module.ItemFinishStatus(DB_ITEM_SUCCESS);
    EXPECT_EQ(module.close("STATUS=1"), DB_NUM_I_OK);
    expectEverythingRefused(module);
    const long ends = server.calls("NSFEndArchivingLogs");
    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
    EXPECT_EQ(server.calls("NSFEndArchivingLogs"), ends) << "a second close ends no session";
    expectEverythingRefused(module);
}

TEST_IN_OWN_PROCESS(States, MissingArgumentsAreErrorsNotCrashes) {
    EXPECT_EQ(module.GetInfo(nullptr), DB_NUM_E_FAILED);
    EXPECT_EQ(module.GetError(nullptr), DB_NUM_E_FAILED);
    EXPECT_EQ(module.InitOperation(DB_TYPE_BCK, DB_LEVEL_FULL, nullptr, nullptr), DB_NUM_E_FAILED);
    ASSERT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_I_OK);
    char szText[1028] = "/x/y.nsf";
    EXPECT_EQ(module.GetItem(szText, szText, nullptr), DB_NUM_E_FAILED);
    EXPECT_EQ(module.PrepareItem(nullptr, szText), DB_NUM_E_FAILED);
    EXPECT_EQ(module.PrepareItem(szText, nullptr), DB_NUM_E_FAILED);
    EXPECT_EQ(module.PrepareItem(std::string(5000, 'x').c_str(), szText), DB_NUM_E_ITEM_FAILED);
    EXPECT_EQ(module.SetItem(DB_ITEM_TYPE_FILE, nullptr), DB_NUM_E_FAILED);
    EXPECT_EQ(module.DirItem(nullptr), DB_NUM_I_COMPLETE);
    EXPECT_EQ(module.SetTrace(nullptr), DB_NUM_I_OK);
    EXPECT_EQ(module.SetLog(nullptr), DB_NUM_I_OK);
    module.backUp();
    EXPECT_EQ(module.code, DB_NUM_I_COMPLETE) << "works without callbacks";
    EXPECT_EQ(module.CloseOperation(nullptr), DB_NUM_I_OK);
}

TEST_IN_OWN_PROCESS(States, SecondStartWithoutACloseUndoesTheFirst) {
    server.markSaved("names.nsf");
    backUp(DB_LEVEL_FULL);
    const std::string saved = server.index();
    server.simulate("compact " + server.server() + " names.nsf");
    server.markSaved("names.nsf");

    ASSERT_EQ(openBackup(DB_LEVEL_INCR), DB_NUM_I_OK);
    module.get();
    EXPECT_EQ(server.filesBelow("run").size(), 2u) << "a working copy";
    ASSERT_EQ(module.open(server, DB_TYPE_RST, DB_LEVEL_DIFF), DB_NUM_E_FAILED);
    EXPECT_EQ(server.calls("NotesTerm"), 3);
    EXPECT_EQ(server.calls("NSFEndArchivingLogs"), 2) << "the session of the first is ended";
    EXPECT_EQ(server.filesBelow("run").size(), 1u);
    EXPECT_EQ(server.index(), saved);
    module.close("STATUS=0");
    EXPECT_EQ(server.index(), saved);
}

TEST_IN_OWN_PROCESS(StatesWithoutLog, AStartThatFailedReplacesNoIndexAndHidesNoLaterError) {
    const std::string saved = "\n[DBIID]\n/d/a.nsf=old\n\n";
    const std::string leftover = "run/qrtln_DBIID.ini." + std::to_string(getpid());
    server.folder.write("run/qrtln_DBIID.ini", saved);
    server.folder.write(leftover, "of another process");
    EXPECT_EQ(openBackup(DB_LEVEL_FULL, {}), DB_NUM_E_FAILED);
    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
    EXPECT_EQ(server.index(), saved);
    EXPECT_FALSE(server.folder.exists(leftover));

    // Nothing is asked of the server to undo the operation before, as its runtime is down.
    EXPECT_EQ(openBackup(DB_LEVEL_INCR), DB_NUM_E_FAILED);
    module.error();
    const std::size_t calls = server.journal().size();
    EXPECT_EQ(openBackup(DB_LEVEL_FULL, {}), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), "There is no database file arguments");
    EXPECT_EQ(server.journal().size(), calls);
    EXPECT_EQ(openBackup(DB_LEVEL_COPY), DB_NUM_I_OK);
    EXPECT_EQ(module.error(), "");
    EXPECT_GT(server.calls("NSFGetTransLogStyle"), 1) << "asked to end archiving now";
    module.close("STATUS=1");
}

TEST_IN_OWN_PROCESS(States, ACloseThatFailedLeavesNoIndexToTheNext) {
    server.markSaved("names.nsf");
    setenv("NOTES_SIM_FAULTS", "NSFEndArchivingLogs#1=1234", 1);
    ASSERT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_I_OK);
    module.backUp();
    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_E_FAILED);
    EXPECT_EQ(openBackup(DB_LEVEL_FULL, {}), DB_NUM_E_FAILED);
    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
    EXPECT_THAT(server.filesBelow("run"), ::testing::IsEmpty());
}

TEST_IN_OWN_PROCESS(States, ADataDirectoryWithoutRoomForItsDelimiterIsRefused) {
    std::string deep = server.server();
    while (deep.size() < 1027 - std::strlen("/data")) {
        deep += "/" + std::string(std::min<std::size_t>(200, 1021 - deep.size()), 'd');
    }
    server.simulate("init " + deep + " --databases 5");
    server.folder.write("server/notes.ini", "Directory=" + deep + "/data\nNotesProgram=/program\n");
    EXPECT_EQ(openBackup(DB_LEVEL_COPY), DB_NUM_E_FAILED);
    EXPECT_THAT(module.error(), ::testing::StartsWith("The path of a directory of the server is "
                                                      "longer than 1026"));
    module.close("STATUS=1");
}

TEST_IN_OWN_PROCESS(States, WrongOperationsAreRefusedAndTheLongPathPrefixIsDropped) {
    EXPECT_EQ(module.open(server, DB_TYPE_DIR, DB_LEVEL_FULL), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), kNotExpected);
    EXPECT_EQ(server.calls("NotesTerm"), 1);
    module.close("STATUS=0");
    module.error();
    ASSERT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_I_OK);
    char szItem[1028] = "\\\\?\\/a/b.nsf";
    EXPECT_EQ(module.SetItem(DB_ITEM_TYPE_SITE, szItem), DB_NUM_I_OK);
    EXPECT_STREQ(szItem, "/a/b.nsf");
    for (const DB_ITEM_TYPE type : {DB_ITEM_TYPE_DIRECTORY, DB_ITEM_TYPE_FILE}) {
        EXPECT_EQ(module.SetItem(type, szItem), DB_NUM_E_FAILED);
        EXPECT_EQ(module.error(), kNotExpected);
        EXPECT_STREQ(szItem, "/a/b.nsf");
    }
    module.close("STATUS=1");
}

TEST_IN_OWN_PROCESS(States, NoExceptionOfACallbackLeavesAnEntryPoint) {
    module.SetLog([](const char*) { throw std::runtime_error("from the client"); });
    EXPECT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_E_FAILED);
    module.SetLog(nullptr);
    module.SetTrace([](const char*) { throw 1; });
    EXPECT_EQ(module.Terminate(), DB_NUM_E_FAILED);
    EXPECT_EQ(module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_E_FAILED);
    module.SetTrace(nullptr);
    // What was cut short is cleaned up, and the next operation works.
    EXPECT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_I_OK);
    module.close("STATUS=1");
}

} // namespace
