// A backup at the module's interface, over the simulator.
#include <chrono>
#include <cstring>
#include <gmock/gmock.h>
#include <set>
#include <sys/resource.h>

#include "tests/interface/module_host.h"
#include "tests/interface/own_process.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace fs = std::filesystem;

std::vector<std::string> endingWith(const std::vector<std::string>& names, const char* end) {
    std::vector<std::string> chosen;
    std::copy_if(names.begin(), names.end(), std::back_inserter(chosen),
                 [&](const std::string& name) { return name.ends_with(end); });
    return chosen;
}

TEST(Backup, FullBackupHandsOutEverythingThenTheLogsThenTheLogControlFileOnce) {
    inOwnProcess([] {
        SimulatedServer server;
        server.fillLog();
        server.markSaved("names.nsf");
        Module module;
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK) << module.error();
        EXPECT_EQ(simulatorFunction<int (*)()>("NotesSimCompanions")(), 3)
            << "libnotes.so comes after both of its companions";
        // The flag is set after the backup was initialised: no session is begun, logs come all the
        // same, and the close ends a session.
        EXPECT_TRUE(Module::traced("QRTLN_InitBackup(): bWithArchiveLogs 0 >> no archive logs "
                                   "will be backed up"));
        EXPECT_TRUE(Module::traced("DB_InitOperation: set bWithArchiveLogs TRUE"));
        const auto items = module.backUp();
        EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
        EXPECT_THAT(module.failed, IsEmpty());
        EXPECT_THAT(module.unfinished, IsEmpty());
        EXPECT_EQ(items[0], server.server() + "/data");
        EXPECT_EQ(items[1], server.data("notes.ini"));
        EXPECT_THAT(
            items, ::testing::IsSupersetOf({server.data("names.nsf"), server.data("mail/user1.nsf"),
                                            server.data("user.id")}));
        const auto logs = endingWith(items, ".TXN");
        ASSERT_GE(logs.size(), 2u);
        EXPECT_EQ(std::vector(items.end() - static_cast<long>(logs.size()) - 1, items.end() - 1),
                  logs);
        EXPECT_EQ(items.back(), server.server() + "/logs/nlogctrl.lfh");
        EXPECT_EQ(module.get(), "") << "the log control file comes once";
        EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
        EXPECT_EQ(server.calls("NSFBeginArchivingLogs"), 0);
        EXPECT_EQ(server.calls("NSFDbGetBuildVersion"), 1) << "of the first database only";
        EXPECT_EQ(server.calls("NSFDoneArchivingLog"), 0) << "nothing is marked before the close";
        EXPECT_THAT(server.filesBelow("tmp"), IsEmpty());

        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        EXPECT_EQ(server.calls("NSFDoneArchivingLog"), static_cast<long>(logs.size()) - 1)
            << "every log but the active one";
        EXPECT_EQ(server.calls("NSFEndArchivingLogs"), 1);
        const std::string index = server.folder.read("run/qrtln_DBIID.ini");
        EXPECT_TRUE(index.starts_with("\n[DBIID]\n"));
        EXPECT_EQ(server.filesBelow("run").size(), 1u);
    });
}

TEST(Backup, PreparedCopyIsSoundAndGoesWhenTheItemIsFinished) {
    inOwnProcess([] {
        SimulatedServer server;
        Module module;
        const std::string database = server.data("names.nsf");
        const auto parameters = std::make_unique<sQRT_DB>();
        std::strcpy(parameters->szSaveset, "nightly %s");
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_COPY, {"DATABASE=QRTLN:" + database},
                              parameters.get()),
                  DB_NUM_I_OK);
        EXPECT_TRUE(Module::traced("Saveset nightly %s"));
        while (module.get() != database) {
            ASSERT_EQ(module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_I_OK);
        }
        const std::string copy = module.prepare(database);
        EXPECT_EQ(copy, server.folder.file("tmp/names.nsf"));
        server.simulate("show " + copy);
        EXPECT_EQ(module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_I_OK);
        EXPECT_FALSE(fs::exists(copy));
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        // A copy backup asks no database for its DBIID, so there is no index to put in place.
        EXPECT_THAT(server.filesBelow("run"), IsEmpty());
    });
}

TEST(Backup, TextsThatNobodyHearsCostNoCall) {
    for (const bool heard : {false, true}) {
        inOwnProcess([&] {
            SimulatedServer server;
            const std::string database = server.data("names.nsf");
            server.markSaved("names.nsf");
            Module module;
            if (!heard) {
                module.SetTrace(nullptr);
                module.SetLog(nullptr);
            }
            ASSERT_EQ(
                module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL, {"DATABASE=QRTLN:" + database}),
                DB_NUM_I_OK);
            long calls = 0;
            const auto translations = [&] {
                const long before = calls;
                calls = server.calls("OSTranslate(");
                return calls - before;
            };
            std::string item;
            do {
                module.ItemFinishStatus(DB_ITEM_SUCCESS);
                translations();
                item = module.get();
            } while (item != database);
            // The path for the server, and the key of the index unless a text has shown it.
            EXPECT_EQ(translations(), heard ? 1 : 3);
            module.prepare(item);
            // Both paths for the server, and the names of the copy in the texts.
            EXPECT_EQ(translations(), heard ? 6 : 2);
            module.ItemFinishStatus(DB_ITEM_SUCCESS);
            EXPECT_EQ(translations(), 0);
            module.close("STATUS=1");
        });
    }
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
            SimulatedServer server;
            server.fillLog();
            server.markSaved("names.nsf");
            Module module;
            ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
            // A log goes on the list of logs to mark whatever its finish status: the status of the
            // whole run alone holds it back.
            module.backUp(DB_ITEM_FAIL);
            EXPECT_EQ(module.close(c.status, c.second), DB_NUM_I_OK);
            EXPECT_EQ(server.calls("NSFDoneArchivingLog") > 0, c.ok);
            EXPECT_EQ(server.calls("NSFEndArchivingLogs"), 1);
            EXPECT_EQ(server.filesBelow("run").size(), c.ok ? 1u : 0u);
        });
    }
}

TEST(Backup, ALogThatCannotBeMarkedKeepsNoOtherFromIt) {
    inOwnProcess([] {
        SimulatedServer server;
        server.fillLog();
        setenv("NOTES_SIM_FAULTS", "NSFDoneArchivingLog#1=1234", 1);
        Module module;
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
        const auto logs = endingWith(module.backUp(), ".TXN");
        ASSERT_GE(logs.size(), 3u) << "two and the active one";
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        EXPECT_TRUE(Module::logged("DB_CloseOperation(): finishArchiveLog() failed"));
        EXPECT_TRUE(fs::exists(logs[0]));
        EXPECT_FALSE(fs::exists(logs[1]));
        EXPECT_EQ(server.calls("NSFEndArchivingLogs"), 1);
    });
}

TEST(Backup, IncrementalTakesOnlyDatabasesWhoseInstanceChanged) {
    inOwnProcess([] {
        SimulatedServer server;
        inOwnProcess([&] {
            Module module;
            module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL);
            module.backUp();
            EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        });
        // The first full backup found databases never backed up: their entries come with the next.
        inOwnProcess([&] {
            Module module;
            module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL);
            module.backUp();
            EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        });
        const std::string before = server.folder.read("run/qrtln_DBIID.ini");
        EXPECT_THAT(before, HasSubstr(server.data("names.nsf") + "="));
        for (const bool compacted : {false, true}) {
            SCOPED_TRACE(compacted);
            if (compacted) {
                server.simulate("compact " + server.server() + " names.nsf");
                // Its content is saved elsewhere, so that the changed DBIID alone selects it.
                server.markSaved("names.nsf");
            }
            inOwnProcess([&] {
                Module module;
                ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_INCR), DB_NUM_I_OK);
                const auto databases = endingWith(module.backUp(), ".nsf");
                EXPECT_EQ(databases, compacted ? std::vector{server.data("names.nsf")}
                                               : std::vector<std::string>{});
                EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
            });
            EXPECT_EQ(server.folder.read("run/qrtln_DBIID.ini") != before, compacted);
        }
    });
}

TEST(Backup, WithoutArchiveLogsAFullBackupEndsAfterTheDatabasesAndAnIncrementalOneFails) {
    for (const char* style : {"circular", "linear", "none"}) {
        SCOPED_TRACE(style);
        inOwnProcess([&] {
            SimulatedServer server(style);
            Module module;
            ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
            const auto items = module.backUp();
            EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
            EXPECT_THAT(endingWith(items, ".TXN"), IsEmpty());
            EXPECT_THAT(endingWith(items, ".lfh"), IsEmpty());
            EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);

            EXPECT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_INCR), DB_NUM_E_FAILED);
            Module::s_traces.clear();
            EXPECT_EQ(module.close("STATUS=1"), DB_NUM_I_OK);
            EXPECT_TRUE(Module::traced("endArchiveLogs() call")) << "still asks to end archiving";
        });
    }
}

TEST(Backup, SecondOperationOfAProcessLacksWhatComesOncePerModule) {
    inOwnProcess([] {
        SimulatedServer server;
        server.fillLog();
        Module module;
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
        module.backUp();
        ASSERT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        EXPECT_EQ(server.calls("NSFGetFirstLogToArchive"), 1);
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
        const auto items = module.backUp();
        EXPECT_EQ(server.calls("NSFGetFirstLogToArchive"), 1);
        EXPECT_THAT(items, Contains(server.data("names.nsf")));
        EXPECT_THAT(items, Not(Contains(server.data("notes.ini"))));
        EXPECT_THAT(endingWith(items, ".lfh"), IsEmpty());
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        // Without it, a selection may come to nothing.
        fs::remove_all(server.data("mail"));
        fs::create_directories(server.data("empty"));
        for (const std::string selected : {"empty", "NOTES"}) {
            module.error();
            EXPECT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL, {"DATABASE=" + selected}),
                      DB_NUM_E_FAILED);
            EXPECT_EQ(module.error(),
                      "getNotesFileList(): There are no files matching requested patterns");
            module.close("STATUS=1");
            for (const auto& entry : fs::directory_iterator(server.data(""))) {
                fs::remove_all(entry);
            }
        }
    });
}

TEST(Backup, OtherDatabaseExtensionsArePreparedLikeDatabasesButTheirCopiesStay) {
    inOwnProcess([] {
        SimulatedServer server;
        fs::copy(server.data("names.nsf"), server.data("old.ns3"));
        Module module;
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
        EXPECT_THAT(module.backUp(), Contains(server.data("old.ns3")));
        EXPECT_THAT(server.filesBelow("tmp"), ::testing::ElementsAre("old.ns3"));
        module.close("STATUS=0");
    });
}

TEST(Backup, EveryItemIsFinishedOnceInWhateverBatchesItemsAreHandedOut) {
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
        inOwnProcess([&] {
            SimulatedServer server;
            Module module;
            ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_COPY), DB_NUM_I_OK);
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
            for (const std::string& trace : Module::s_traces) {
                if (trace.starts_with("DB_ItemFinishStatus(): Item /")) {
                    finished.push_back(trace);
                }
            }
            EXPECT_EQ(finished, expected);
            module.close("STATUS=1");
        });
    }
}

TEST(Backup, ItemThatCannotBePreparedFailsAloneAndLeavesNothing) {
    inOwnProcess([] {
        SimulatedServer server;
        std::ofstream(server.data("broken.nsf")) << "no database";
        Module module;
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
        module.backUp();
        EXPECT_EQ(module.failed, std::vector{server.data("broken.nsf")});
        EXPECT_TRUE(Module::logged("Checking if file needs to be backed up failure: " +
                                   server.data("broken.nsf")));
        EXPECT_TRUE(Module::logged("Preparing backup file failure: " + server.data("broken.nsf")));
        EXPECT_TRUE(Module::logged("DB_PrepareItem(): [" + server.data("broken.nsf") +
                                   "] Err 1000 -> return DB_NUM_E_ITEM_FAILED"));
        EXPECT_THAT(server.filesBelow("tmp"), IsEmpty());
        EXPECT_EQ(module.close("STATUS=1"), DB_NUM_I_OK);
    });
}

TEST(Backup, DatabaseThatVanishesAfterItWasListedFailsAlone) {
    inOwnProcess([] {
        SimulatedServer server;
        Module module;
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_FULL), DB_NUM_I_OK);
        fs::remove(server.data("mail/user2.nsf"));
        const auto items = module.backUp();
        EXPECT_THAT(items, Contains(server.data("mail/user2.nsf")));
        EXPECT_THAT(items, Contains(server.server() + "/logs/nlogctrl.lfh"));
        EXPECT_EQ(module.failed, std::vector{server.data("mail/user2.nsf")});
        EXPECT_TRUE(
            Module::logged("Preparing backup file failure: " + server.data("mail/user2.nsf")));
        EXPECT_EQ(module.close("STATUS=1"), DB_NUM_I_OK);
    });
}

TEST(Backup, NamedDatabasesAreBackedUpAtEveryLevel) {
    const std::pair<DB_OPERATION_LEVEL, const char*> levels[] = {{DB_LEVEL_COPY, "full"},
                                                                 {DB_LEVEL_FULL, "full"},
                                                                 {DB_LEVEL_DIFF, "differential"},
                                                                 {DB_LEVEL_INCR, "incremental"}};
    for (const auto& [level, name] : levels) {
        SCOPED_TRACE(name);
        inOwnProcess([&, level = level, name = name] {
            SimulatedServer server;
            Module module;
            ASSERT_EQ(
                module.open(server, DB_TYPE_BCK, level, {"DATABASE=QRTLN:" + server.data("mail")}),
                DB_NUM_I_OK);
            EXPECT_TRUE(Module::traced(std::string("QRTLN_InitBackup(): Particular Lotus Notes ") +
                                       name + " backup."));
            const auto items = module.backUp();
            EXPECT_THAT(items, Contains(server.data("mail/user1.nsf")));
            EXPECT_THAT(items, Not(Contains(server.data("names.nsf"))));
            EXPECT_EQ(endingWith(items, ".TXN").empty(), level != DB_LEVEL_INCR);
            // Names without a directory are nobody's, whatever they are.
            module.prepare("S0000001.TXN");
            EXPECT_EQ(module.code, DB_NUM_E_FAILED);
            EXPECT_TRUE(Module::logged("Preparing backup file failure: S0000001.TXN"));
            EXPECT_EQ(module.prepare("user.id"), "");
            EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
            for (const DB_OPERATION_LEVEL whole : {DB_LEVEL_COPY, DB_LEVEL_DIFF}) {
                EXPECT_EQ(module.open(server, DB_TYPE_BCK, whole), DB_NUM_I_OK);
                module.close("STATUS=0");
            }
            EXPECT_EQ(server.calls("NSFEndArchivingLogs"), level == DB_LEVEL_INCR ? 1 : 0)
                << "an archiving session that others may have";
        });
    }
}

// QRTLN_LONG_TESTS=1 in the environment: a hundred thousand files instead of five thousand.
TEST(Backup, FolderOfManyFilesIsListedWhole) {
    inOwnProcess([] {
        SimulatedServer server;
        const int count = std::getenv("QRTLN_LONG_TESTS") != nullptr ? 100'000 : 5'000;
        fs::create_directories(server.data("many"));
        for (int i = 0; i < count; ++i) {
            for (const char* extension : {".id", ".txt"}) {
                std::ofstream(server.data("many/") + std::to_string(i) + extension);
            }
        }
        Module module;
        module.SetTrace(nullptr);
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(module.open(server, DB_TYPE_BCK, DB_LEVEL_COPY), DB_NUM_I_OK);
        int handedOut = 0;
        for (std::string item = module.get(); !item.empty(); item = module.get()) {
            const bool many = item.find("/many/") != std::string::npos;
            handedOut += many && item.ends_with(".id") ? 1 : 0;
            EXPECT_FALSE(item.ends_with(".txt"));
            EXPECT_EQ(module.ItemFinishStatus(many ? DB_ITEM_SUCCESS : DB_ITEM_EXCLUDED),
                      DB_NUM_I_OK);
        }
        EXPECT_EQ(module.code, DB_NUM_I_COMPLETE);
        EXPECT_EQ(handedOut, count);
        EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        std::printf("%d items of %d files in %.2f s, at most %ld KiB\n", handedOut, 2 * count,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
                    usage.ru_maxrss);
    });
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
        EXPECT_THAT(server.filesBelow("run"),
                    ::testing::ElementsAre("gv_rw_times:qrtln_DBIID.ini"));
    });
}

} // namespace
