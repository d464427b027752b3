// A backup at the module's interface, over the simulator.
#include <chrono>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include "tests/interface/module_host.h"
#include "tests/interface/own_process.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

using Backup = Host;

std::vector<std::string> endingWith(const std::vector<std::string>& names, const char* end) {
    std::vector<std::string> chosen;
    std::copy_if(names.begin(), names.end(), std::back_inserter(chosen),
                 [&](const std::string& name) { return name.ends_with(end); });
    return chosen;
}

TEST_IN_OWN_PROCESS(Backup, FullHandsOutEverythingThenTheLogsThenTheLogControlFileOnce) {
    server.fillLog();
    server.markSaved("names.nsf");
    ASSERT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_I_OK) << module.error();
    EXPECT_EQ(simulatorFunction<int (*)()>("NotesSimCompanions")(), 3)
        << "libnotes.so comes after both of its companions";
    const auto items = module.backUp();
    EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
    EXPECT_THAT(module.failed, IsEmpty());
    EXPECT_EQ(items[0], server.server() + "/data");
    EXPECT_EQ(items[1], server.data("notes.ini"));
    EXPECT_THAT(items,
                ::testing::IsSupersetOf({server.data("names.nsf"), server.data("mail/user1.nsf"),
                                         server.data("user.id")}));
    const auto logs = endingWith(items, ".TXN");
    ASSERT_GE(logs.size(), 2u);
    EXPECT_EQ(std::vector(items.end() - static_cast<long>(logs.size()) - 1, items.end() - 1), logs);
    EXPECT_EQ(items.back(), server.server() + "/logs/nlogctrl.lfh");
    EXPECT_EQ(module.get(), "") << "the log control file comes once";
    EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
    EXPECT_EQ(server.calls("NSFBeginArchivingLogs"), 0) << "logs come without a session";
    EXPECT_EQ(server.calls("NSFDbGetBuildVersion"), 1) << "of the first database only";
    EXPECT_EQ(server.calls("NSFDoneArchivingLog"), 0) << "nothing is marked before the close";
    EXPECT_THAT(server.filesBelow("tmp"), IsEmpty());

    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
    EXPECT_EQ(server.calls("NSFDoneArchivingLog"), static_cast<long>(logs.size()) - 1)
        << "every log but the active one";
    EXPECT_EQ(server.calls("NSFEndArchivingLogs"), 1);
    EXPECT_TRUE(server.index().starts_with("\n[DBIID]\n"));
    EXPECT_EQ(server.filesBelow("run").size(), 1u);
}

TEST(Backup, OnlyTheStatusZeroMarksLogsAndReplacesTheIndex) {
    struct Case {
        const char* status;
        bool ok;
        const char* second = "";
    };
    // One zero is enough, wherever it stands.
    for (const Case& c : {Case{"STATUS=0", true}, Case{"status:0", true}, Case{"STATUS=1", false},
                          Case{"STATUS=00", false}, Case{"STATUS", false}, Case{"STATE=0", false},
                          Case{"STATUS=0", true, "STATUS=1"}, Case{"STATUS=1", true, "STATUS=0"}}) {
        SCOPED_TRACE(std::string(c.status) + c.second);
        inOwnProcess([&] {
            Backup test;
            test.server.fillLog();
            test.server.markSaved("names.nsf");
            ASSERT_EQ(test.openBackup(DB_LEVEL_FULL), DB_NUM_I_OK);
            // A log goes on the list of logs to mark whatever its finish status: the status of the
            // whole run alone holds it back.
            test.module.backUp(DB_ITEM_FAIL);
            EXPECT_EQ(test.module.close(c.status, c.second), DB_NUM_I_OK);
            EXPECT_EQ(test.server.calls("NSFDoneArchivingLog") > 0, c.ok);
            EXPECT_EQ(test.server.calls("NSFEndArchivingLogs"), 1);
            EXPECT_EQ(test.server.filesBelow("run").size(), c.ok ? 1u : 0u);
        });
    }
}

TEST_IN_OWN_PROCESS(Backup, ALogThatCannotBeMarkedKeepsNoOtherFromIt) {
    server.fillLog();
    setenv("NOTES_SIM_FAULTS", "NSFDoneArchivingLog#1=1234", 1);
    const auto logs = endingWith(backUp(DB_LEVEL_FULL), ".TXN");
    ASSERT_GE(logs.size(), 3u) << "two and the active one";
    EXPECT_TRUE(Module::logged("DB_CloseOperation(): finishArchiveLog() failed"));
    EXPECT_TRUE(fs::exists(logs[0]));
    EXPECT_FALSE(fs::exists(logs[1]));
    EXPECT_EQ(server.calls("NSFEndArchivingLogs"), 1);
}

TEST_IN_OWN_PROCESS(Backup, IncrementalTakesOnlyDatabasesWhoseInstanceChanged) {
    std::string others = "\n[DBIID]\n"; // of databases that are not there
    for (int i = 0; i < 200; ++i) {
        others += "/gone/" + std::to_string(i) + "'s.nsf=" + std::to_string(i * i) + "\n";
    }
    server.folder.write("run/qrtln_DBIID.ini", others);
    // The first full backup finds databases never backed up: their entries come with the next.
    backUp(DB_LEVEL_FULL);
    backUp(DB_LEVEL_FULL);
    const std::string before = server.index();
    EXPECT_TRUE(before.starts_with(others));
    EXPECT_THAT(before, HasSubstr(server.data("names.nsf") + "="));
    EXPECT_THAT(endingWith(backUp(DB_LEVEL_INCR), ".nsf"), IsEmpty());
    EXPECT_EQ(server.index(), before);
    server.simulate("compact " + server.server() + " names.nsf");
    // Its content is saved elsewhere, so that the changed DBIID alone selects it.
    server.markSaved("names.nsf");
    EXPECT_THAT(endingWith(backUp(DB_LEVEL_INCR), ".nsf"), ElementsAre(server.data("names.nsf")));
    EXPECT_NE(server.index(), before);
}

TEST(Backup, WithoutArchiveLogsAFullBackupEndsAfterTheDatabasesAndAnIncrementalOneFails) {
    for (const char* style : {"circular", "linear", "none"}) {
        SCOPED_TRACE(style);
        inOwnProcess([&] {
            Backup test(style);
            const auto items = test.backUp(DB_LEVEL_FULL);
            EXPECT_THAT(items, Contains(test.server.data("names.nsf")));
            EXPECT_THAT(endingWith(items, ".TXN"), IsEmpty());
            EXPECT_THAT(endingWith(items, ".lfh"), IsEmpty());

            EXPECT_EQ(test.openBackup(DB_LEVEL_INCR), DB_NUM_E_FAILED);
            Module::s_traces.clear();
            EXPECT_EQ(test.module.close("STATUS=1"), DB_NUM_I_OK);
            EXPECT_TRUE(Module::traced("endArchiveLogs() call")) << "still asks to end archiving";
        });
    }
}

TEST_IN_OWN_PROCESS(Backup, SecondOperationOfAProcessLacksWhatComesOncePerModule) {
    server.fillLog();
    backUp(DB_LEVEL_FULL);
    EXPECT_EQ(server.calls("NSFGetFirstLogToArchive"), 1);
    const auto items = backUp(DB_LEVEL_FULL);
    EXPECT_EQ(server.calls("NSFGetFirstLogToArchive"), 1);
    EXPECT_THAT(items, Contains(server.data("names.nsf")));
    EXPECT_THAT(items, Not(Contains(server.data("notes.ini"))));
    EXPECT_THAT(endingWith(items, ".lfh"), IsEmpty());
    // Without it, a selection may come to nothing.
    fs::remove_all(server.data("mail"));
    fs::create_directories(server.data("empty"));
    for (const char* selected : {"DATABASE=empty", "DATABASE=NOTES"}) {
        module.error();
        EXPECT_EQ(openBackup(DB_LEVEL_FULL, {selected}), DB_NUM_E_FAILED);
        EXPECT_EQ(module.error(),
                  "getNotesFileList(): There are no files matching requested patterns");
        module.close("STATUS=1");
        for (const auto& entry : fs::directory_iterator(server.data(""))) {
            fs::remove_all(entry);
        }
    }
}

TEST_IN_OWN_PROCESS(Backup, OtherDatabaseExtensionsArePreparedLikeDatabasesButTheirCopiesStay) {
    fs::copy(server.data("names.nsf"), server.data("old.ns3"));
    EXPECT_THAT(backUp(DB_LEVEL_FULL), Contains(server.data("old.ns3")));
    EXPECT_THAT(server.filesBelow("tmp"), ElementsAre("old.ns3"));
}

TEST_IN_OWN_PROCESS(Backup, EveryItemIsFinishedOnceInWhateverBatchesItemsAreHandedOut) {
    struct Case {
        const char* title;
        std::vector<int> steps; // n > 0: get n items; n < 0: finish -n
    };
    for (const Case& c :
         {Case{"one by one", {1, -1, 1, -1, 1, -1, 1, -1, 1, -1, 1, -1}},
          Case{"all at once", {6, -6}}, Case{"the last one kept, then two", {1, -1, 2, -2, 3, -3}},
          Case{"three, a fourth, then two", {3, -3, 1, -1, 2, -2}},
          Case{"overlapping", {3, -2, 2, -2, 1, -2}}}) {
        SCOPED_TRACE(c.title);
        Module::s_traces.clear();
        ASSERT_EQ(openBackup(DB_LEVEL_COPY), DB_NUM_I_OK);
        std::vector<std::string> expected;
        for (const int step : c.steps) {
            for (int i = 0; i < step; ++i) {
                expected.push_back("DB_ItemFinishStatus(): Item " + module.get());
            }
            for (int i = 0; i < -step; ++i) {
                module.ItemFinishStatus(DB_ITEM_EXCLUDED);
            }
        }
        module.error();
        EXPECT_EQ(module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_E_FAILED) << "one too many";
        EXPECT_EQ(module.error(), "The Notes runtime system is not initialized!");
        std::vector<std::string> finished;
        std::copy_if(Module::s_traces.begin(), Module::s_traces.end(), std::back_inserter(finished),
                     [](const std::string& trace) {
                         return trace.starts_with("DB_ItemFinishStatus(): Item /");
                     });
        EXPECT_EQ(finished, expected);
        module.close("STATUS=1");
    }
}

TEST_IN_OWN_PROCESS(Backup, WhatIsNoDatabaseOrVanishesAfterItWasListedFailsAlone) {
    const std::string broken = server.folder.write("server/data/broken.nsf", "no database");
    const std::string vanished = server.data("mail/user2.nsf");
    ASSERT_EQ(openBackup(DB_LEVEL_FULL), DB_NUM_I_OK);
    fs::remove(vanished);
    const auto items = module.backUp();
    EXPECT_THAT(items, ::testing::IsSupersetOf({broken, vanished}));
    EXPECT_EQ(items.back(), server.server() + "/logs/nlogctrl.lfh");
    EXPECT_THAT(module.failed, ::testing::UnorderedElementsAre(broken, vanished));
    EXPECT_TRUE(Module::logged("Checking if file needs to be backed up failure: " + broken));
    for (const std::string& item : module.failed) {
        EXPECT_TRUE(Module::logged("Preparing backup file failure: " + item));
        EXPECT_TRUE(Module::logged("DB_PrepareItem(): [" + item +
                                   "] Err 1000 -> return DB_NUM_E_ITEM_FAILED"));
    }
    EXPECT_THAT(server.filesBelow("tmp"), IsEmpty());
    EXPECT_EQ(module.close("STATUS=1"), DB_NUM_I_OK);
}

TEST_IN_OWN_PROCESS(Backup, SelectionsHandOutWhatTheyNameEachBehindItsDirectory) {
    for (const char* name :
         {"s/a.nsf", "s/nodot", "s/text.txt", "s/deep/b.nsf", "s/deep/c.NLO", "t/d.ns4"}) {
        server.folder.write(std::string("server/data/") + name);
    }
    openBackup(DB_LEVEL_COPY); // with notes.ini, which comes once
    module.close("STATUS=1");
    struct Case {
        std::vector<std::string> selections;
        std::vector<std::string> items; // empty: refused
    };
    const Case cases[] = {
        {{"s/a.nsf"}, {"s", "s/a.nsf"}},
        // Attachments come last, their directories once more.
        {{"s"}, {"s", "s/a.nsf", "s/deep", "s/deep/b.nsf", "s/deep", "s/deep/c.NLO"}},
        {{"s/*.nsf", "t/*"}, {"s", "s/a.nsf", "s/deep", "s/deep/b.nsf", "t", "t/d.ns4"}},
        {{"t/*.ns4", "s/no*"}, {"t", "t/d.ns4", "s", "s/nodot"}},
        // One that exists hides those behind it.
        {{"t", "s/a.nsf"}, {"t", "t/d.ns4", "t", "t/d.ns4"}},
        {{"t/*.ns4", "s/gone*"}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.selections));
        std::vector<std::string> variables;
        for (const std::string& selection : c.selections) {
            variables.push_back("DATABASE=" + selection);
        }
        EXPECT_EQ(openBackup(DB_LEVEL_COPY, variables),
                  c.items.empty() ? DB_NUM_E_FAILED : DB_NUM_I_OK);
        std::vector<std::string> items;
        for (std::string item = module.get(); !item.empty(); item = module.get()) {
            items.push_back(fs::path(item).lexically_relative(server.data("")));
            module.ItemFinishStatus(DB_ITEM_EXCLUDED);
        }
        EXPECT_EQ(items, c.items);
        module.close("STATUS=1");
    }
}

TEST(Backup, NamedDatabasesAreBackedUpAtEveryLevel) {
    for (const auto level : {DB_LEVEL_COPY, DB_LEVEL_FULL, DB_LEVEL_DIFF, DB_LEVEL_INCR}) {
        SCOPED_TRACE(level);
        inOwnProcess([&] {
            Backup test;
            Module& module = test.module;
            ASSERT_EQ(test.openBackup(level, {"DATABASE=QRTLN:" + test.server.data("mail")}),
                      DB_NUM_I_OK);
            const auto items = module.backUp();
            EXPECT_THAT(items, Contains(test.server.data("mail/user1.nsf")));
            EXPECT_THAT(items, Not(Contains(test.server.data("names.nsf"))));
            EXPECT_EQ(endingWith(items, ".TXN").empty(), level != DB_LEVEL_INCR);
            // Names without a directory are nobody's, whatever they are.
            EXPECT_EQ(module.prepare("user.id"), "");
            EXPECT_EQ(module.prepare("S0000001.TXN"), "");
            EXPECT_EQ(module.code, DB_NUM_E_FAILED);
            EXPECT_TRUE(Module::logged("Preparing backup file failure: S0000001.TXN"));
            EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
            for (const DB_OPERATION_LEVEL whole : {DB_LEVEL_COPY, DB_LEVEL_DIFF}) {
                EXPECT_EQ(test.openBackup(whole), DB_NUM_I_OK);
                module.close("STATUS=0");
            }
            EXPECT_EQ(test.server.calls("NSFEndArchivingLogs"), level == DB_LEVEL_INCR ? 1 : 0)
                << "an archiving session that others may have";
        });
    }
}

// QRTLN_LONG_TESTS=1 in the environment: a hundred thousand files instead of five thousand.
TEST_IN_OWN_PROCESS(Backup, FolderOfManyFilesIsListedWhole) {
    const int count = std::getenv("QRTLN_LONG_TESTS") != nullptr ? 100'000 : 5'000;
    fs::create_directories(server.data("many"));
    for (int i = 0; i < count; ++i) {
        for (const char* extension : {".id", ".txt"}) {
            std::ofstream(server.data("many/") + std::to_string(i) + extension);
        }
    }
    module.SetTrace(nullptr);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(openBackup(DB_LEVEL_COPY), DB_NUM_I_OK);
    int handedOut = 0;
    for (std::string item = module.get(); !item.empty(); item = module.get()) {
        const bool many = item.find("/many/") != std::string::npos;
        handedOut += many && item.ends_with(".id") ? 1 : 0;
        EXPECT_FALSE(item.ends_with(".txt"));
        EXPECT_EQ(module.ItemFinishStatus(many ? DB_ITEM_SUCCESS : DB_ITEM_EXCLUDED), DB_NUM_I_OK);
    }
    EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
    EXPECT_EQ(handedOut, count);
    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%d items of %d files in %.2f s, at most %ld KiB\n", handedOut, 2 * count,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                usage.ru_maxrss);
}

TEST(Backup, ClientWithoutResolvePathIsTold) {
    inOwnProcess([] {
        SimulatedServer server;
        server.markSaved("names.nsf");
        fs::current_path(server.folder.file("run"));
        Module module(false);
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
        EXPECT_TRUE(Module::logged("The backup client has no resolve_path: the index file stays "
                                   "[gv_rw_times:qrtln_DBIID.ini], in the current directory"));
        module.backUp();
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        EXPECT_THAT(server.filesBelow("run"), ElementsAre("gv_rw_times:qrtln_DBIID.ini"));
    });
}

} // namespace
