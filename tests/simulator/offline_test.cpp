// Taking databases offline, replacing their files, and bringing them online.
#include "support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

constexpr STATUS kOfflineStatus = 16146;

STATUS takeOffline(std::string name, DWORD wait = 0) {
    return NSFTakeDatabaseOffline(name.data(), wait, 0);
}

STATUS bringOnline(std::string name) {
    return NSFBringDatabaseOnline(name.data(), 0);
}

STATUS openStatus(const std::string& name) {
    DBHANDLE db = 0;
    const STATUS status = NSFDbOpen(name.c_str(), &db);
    if (status == 0) {
        EXPECT_EQ(NSFDbClose(db), 0);
    }
    return status;
}

STATUS backupNeeded(const TestServer& server, const std::string& name) {
    DWORD needed = 0;
    std::string path = server.data(name).string();
    return NSFIsNewBackupNeeded(path.data(), 0, &needed);
}

nlohmann::json show(const TestServer& server, const std::string& name) {
    return dominoSimJson({"show", server.root(), name});
}

void replace(const fs::path& from, const fs::path& to) {
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

struct OfflineCase {
    const char* title;
    const char* database;
    void (*run)(const char* database, const TestServer& server);
};

class TakeOffline : public ::testing::TestWithParam<OfflineCase> {};

TEST_P(TakeOffline, SucceedsOnlyWhileNobodyHasTheDatabaseOpen) {
    const TestServer server;
    std::ofstream(server.data("text.nsf")) << std::string(500, 'x');
    GetParam().run(GetParam().database, server);
}

INSTANTIATE_TEST_SUITE_P(
    Of, TakeOffline,
    ::testing::Values(
        OfflineCase{"Online", "names.nsf",
                    [](const char* name, const TestServer&) {
                        EXPECT_EQ(bringOnline(name), 0) << "it is online already";
                        EXPECT_EQ(takeOffline(name), 0);
                        EXPECT_EQ(takeOffline(name), 0) << "it is offline already";
                        EXPECT_EQ(openStatus(name), kOfflineStatus);
                        EXPECT_EQ(bringOnline(name), 0);
                        EXPECT_EQ(openStatus(name), 0);
                    }},
        OfflineCase{"HeldByAnotherProcess", "names.nsf",
                    [](const char* name, const TestServer& server) {
                        {
                            const Holder holder(server, name);
                            EXPECT_EQ(takeOffline(name), 5098);
                            EXPECT_EQ(takeOffline("mail/user1.nsf"), 0) << "another one";
                            EXPECT_EQ(openStatus(name), 0) << "it is still online";
                        }
                        EXPECT_EQ(takeOffline(name), 0);
                    }},
        OfflineCase{"HeldByTwoAtOnce", "names.nsf",
                    [](const char* name, const TestServer& server) {
                        const Holder holder(server, name);
                        { const OpenDb db(name); }
                        EXPECT_EQ(takeOffline(name), 5098) << "closing one leaves the other";
                    }},
        OfflineCase{"HeldByThisProcess", "names.nsf",
                    [](const char* name, const TestServer&) {
                        {
                            const OpenDb db(name);
                            EXPECT_EQ(takeOffline(name), 5098);
                        }
                        EXPECT_EQ(takeOffline(name), 0);
                    }},
        OfflineCase{"HeldByAWorkload", "names.nsf",
                    [](const char* name, const TestServer& server) {
                        {
                            const Workload workload(server, name);
                            EXPECT_EQ(takeOffline(name), 5098);
                        }
                        EXPECT_EQ(takeOffline(name), 0);
                    }},
        OfflineCase{"WaitsForTheHolder", "names.nsf",
                    [](const char* name, const TestServer& server) {
                        const Holder holder(server, name, "0.3");
                        EXPECT_EQ(takeOffline(name, 60), 0);
                    }},
        OfflineCase{"Missing", "missing.nsf",
                    [](const char* name, const TestServer&) {
                        EXPECT_EQ(takeOffline(name), 259);
                        EXPECT_EQ(bringOnline(name), 259);
                    }},
        OfflineCase{"NoDatabase", "text.nsf",
                    [](const char* name, const TestServer&) {
                        EXPECT_EQ(takeOffline(name), 513);
                        EXPECT_EQ(bringOnline(name), 513);
                        EXPECT_EQ(takeOffline("mail"), 513);
                    }},
        OfflineCase{"BadArguments", "names.nsf",
                    [](const char* name, const TestServer&) {
                        std::string path = name;
                        EXPECT_NE(NSFTakeDatabaseOffline(nullptr, 0, 0), 0);
                        EXPECT_NE(NSFBringDatabaseOnline(nullptr, 0), 0);
                        EXPECT_NE(NSFTakeDatabaseOffline(path.data(), 0, 1), 0);
                        EXPECT_EQ(openStatus(name), 0);
                        EXPECT_EQ(takeOffline(name), 0);
                        EXPECT_NE(NSFBringDatabaseOnline(path.data(), 1), 0);
                        EXPECT_EQ(openStatus(name), kOfflineStatus);
                    }},
        OfflineCase{"Damaged", "names.nsf",
                    [](const char* name, const TestServer& server) {
                        std::ofstream file(server.data(name), std::ios::in | std::ios::out);
                        file.seekp(100);
                        file << std::string(900, 'x');
                        file.close();
                        EXPECT_EQ(takeOffline(name), 0) << "it is there to be replaced";
                        EXPECT_NE(bringOnline(name), 0);
                        EXPECT_EQ(openStatus(name), kOfflineStatus);
                    }},
        OfflineCase{"InABackupThatWasAbandoned", "names.nsf",
                    [](const char* name, const TestServer& server) {
                        EXPECT_TRUE(inKilledProcess([name, &server] {
                            DBHANDLE db = 0;
                            DHANDLE context = 0;
                            DWORD size[2] = {};
                            return server.start() == 0 && NSFDbOpen(name, &db) == 0 &&
                                   NSFBackupStart(db, 0, &context, &size[0], &size[1]) == 0;
                        }));
                        EXPECT_EQ(takeOffline(name), 0);
                        EXPECT_EQ(bringOnline(name), 0);
                        const OpenDb db(name);
                        DHANDLE context = 0;
                        DWORD size[2] = {};
                        EXPECT_EQ(NSFBackupStart(db.handle, 0, &context, &size[0], &size[1]), 0);
                    }}),
    [](const auto& test) { return std::string(test.param.title); });

TEST(OfflineDatabase, IsClosedToEverybodyUntilItIsBroughtOnline) {
    const TestServer server;
    const std::string name = "names.nsf";
    dominoSim({"saved", server.root(), name});
    const auto before = show(server, name);
    EXPECT_EQ(before["offline"], false);
    ASSERT_EQ(takeOffline(name), 0);
    NotesTerm();
    ASSERT_EQ(server.start(), 0);
    EXPECT_EQ(openStatus(name), kOfflineStatus);
    EXPECT_EQ(openStatus(server.data("mail/../names.nsf").string()), kOfflineStatus);
    EXPECT_EQ(backupNeeded(server, name), kOfflineStatus);
    const std::string manifest = (server.folder / "manifest").string();
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"put", server.root(), name},
          {"delete", server.root(), name, "2294"},
          {"compact", server.root(), name},
          {"saved", server.root(), name},
          {"hold", server.root(), name, "--seconds", "0.01"},
          {"workload", server.root(), name, "--seconds", "0.01", "--manifest", manifest}}) {
        EXPECT_NE(dominoSim(command, 1).output.find("offline"), std::string::npos) << command[0];
    }
    EXPECT_EQ(show(server, name)["offline"], true);
    EXPECT_EQ(show(server, name)["digest"], before["digest"]);
    fs::remove(server.data(name));
    dominoSim({"create", server.root(), name}, 1);
    EXPECT_EQ(openStatus(name), kOfflineStatus);
    EXPECT_EQ(bringOnline(name), 259);
}

TEST(OfflineDatabase, IsTakenAndBroughtBackByDominoSim) {
    const TestServer server;
    const std::string name = "mail/user1.nsf";
    dominoSim({"offline", server.root(), name});
    EXPECT_EQ(openStatus(name), kOfflineStatus);
    dominoSim({"online", server.root(), name});
    const OpenDb db(name);
    dominoSim({"offline", server.root(), name}, 1);
    dominoSim({"put", server.root(), name});
}

enum class Dbiid { kKept, kNew };

struct ReplaceCase {
    const char* title;
    const char* database;
    bool changedSinceCopy; ///< the database has a commit that the copy lacks
    bool offline;          ///< replaced while offline; else lost before, as by a broken disk
    Dbiid dbiid;
};

class ReplacedFile : public ::testing::TestWithParam<ReplaceCase> {};

// The log must never be rolled forward over a gap: an older copy begins a new instance.
TEST_P(ReplacedFile, IsAdoptedAndItsNextChangeContinuesTheLog) {
    const TestServer server;
    const auto& [title, database, changedSinceCopy, offline, dbiid] = GetParam();
    const std::string name = database;
    dominoSim({"create", server.root(), "plain.nsf", "--unlogged"});
    dominoSim({"put", server.root(), name});
    dominoSim({"saved", server.root(), name});
    const fs::path copy = server.folder / "copy.nsf";
    replace(server.data(name), copy);
    const auto copied = show(server, name);
    if (changedSinceCopy) {
        dominoSim({"put", server.root(), name});
    }
    if (offline) {
        ASSERT_EQ(takeOffline(name), 0);
    } else {
        dominoSim({"lose", server.root(), name});
        EXPECT_EQ(openStatus(name), 259);
    }
    replace(copy, server.data(name));
    ASSERT_EQ(bringOnline(name), 0);

    auto present = show(server, name);
    EXPECT_EQ(present["digest"], copied["digest"]);
    EXPECT_EQ(present["offline"], false);
    EXPECT_EQ(present["dbiid"] == copied["dbiid"], dbiid == Dbiid::kKept);
    EXPECT_EQ(backupNeeded(server, name), dbiid == Dbiid::kKept ? 0 : 5114);
    if (dbiid == Dbiid::kKept) {
        EXPECT_TRUE(readFile(server.data(name)) == readFile(copy));
    }
    dominoSim({"put", server.root(), name});
    const auto after = show(server, name);
    EXPECT_EQ(after["dbiid"], present["dbiid"]);
    EXPECT_EQ(after["commit"].get<int>(), copied["commit"].get<int>() + 1);
    if (copied["logged"] == true) {
        EXPECT_GT(after["lastRecord"], copied["lastRecord"]);
    }
}

INSTANTIATE_TEST_SUITE_P(
    By, ReplacedFile,
    ::testing::Values(ReplaceCase{"TheSame", "names.nsf", false, true, Dbiid::kKept},
                      ReplaceCase{"AnOlderCopy", "names.nsf", true, true, Dbiid::kNew},
                      ReplaceCase{"TheSameAfterALoss", "names.nsf", false, false, Dbiid::kKept},
                      ReplaceCase{"AnOlderCopyAfterALoss", "names.nsf", true, false, Dbiid::kNew},
                      ReplaceCase{"AnOlderUnloggedCopy", "plain.nsf", true, true, Dbiid::kKept}),
    [](const auto& test) { return std::string(test.param.title); });

// Nobody told the server: it learns of the older copy by the next change.
TEST(OlderCopy, ThatWasPutBackBehindTheServerBecomesAnInstanceWithItsNextChange) {
    const TestServer server;
    const fs::path copy = server.folder / "copy.nsf";
    dominoSim({"saved", server.root(), "names.nsf"});
    replace(server.data("names.nsf"), copy);
    dominoSim({"put", server.root(), "names.nsf"});
    const auto before = show(server, "names.nsf");
    replace(copy, server.data("names.nsf"));
    EXPECT_EQ(openStatus("names.nsf"), 0);
    EXPECT_EQ(show(server, "names.nsf")["dbiid"], before["dbiid"]);
    EXPECT_EQ(backupNeeded(server, "names.nsf"), 5114);
    dominoSim({"put", server.root(), "names.nsf"});
    const auto after = show(server, "names.nsf");
    EXPECT_NE(after["dbiid"], before["dbiid"]);
    dominoSim({"put", server.root(), "names.nsf"});
    EXPECT_EQ(show(server, "names.nsf")["dbiid"], after["dbiid"]);
}

TEST(ReplacedFile, ThatIsNoDatabaseStaysOfflineUntilItIsReplacedAgain) {
    const TestServer server;
    const fs::path copy = server.folder / "copy.nsf";
    replace(server.data("names.nsf"), copy);
    ASSERT_EQ(takeOffline("names.nsf"), 0);
    std::ofstream(server.data("names.nsf"), std::ios::trunc) << std::string(9000, 'x');
    EXPECT_EQ(bringOnline("names.nsf"), 513);
    EXPECT_EQ(openStatus("names.nsf"), kOfflineStatus);
    EXPECT_EQ(takeOffline("names.nsf"), 0) << "a second restore begins the same way";
    replace(copy, server.data("names.nsf"));
    EXPECT_EQ(bringOnline("names.nsf"), 0);
    EXPECT_EQ(openStatus("names.nsf"), 0);
}

struct JournalCase {
    const char* title;
    bool killedBefore;    ///< the writer was killed, and its journal was there, when taken offline
    bool broughtByOthers; ///< the journal turns up while the database is offline
};

class LeftoverJournal : public ::testing::TestWithParam<JournalCase> {};

TEST_P(LeftoverJournal, IsNotRolledBackIntoTheNewFile) {
    const TestServer server({"--style", "none"});
    const fs::path journals = fs::path(server.root()) / "state/journals";
    const fs::path restored = server.folder / "restored.nsf";
    replace(server.data("mail/user1.nsf"), restored);
    dominoSim({"put", server.root(), "names.nsf", "--count", "300", "--crash", "half-written"},
              1000 + SIGKILL);
    const fs::path journal = journals / "names.nsf-journal";
    ASSERT_GT(fs::file_size(journal), 0U);
    const fs::path kept = server.folder / "journal";
    replace(journal, kept);
    if (!GetParam().killedBefore) {
        ASSERT_EQ(openStatus("names.nsf"), 0); // rolls it back
    }
    ASSERT_EQ(takeOffline("names.nsf"), 0);
    EXPECT_EQ(show(server, "names.nsf")["integrity"], "ok") << "the old file was settled first";
    EXPECT_FALSE(fs::exists(journal));
    replace(restored, server.data("names.nsf"));
    if (GetParam().broughtByOthers) {
        replace(kept, journal);
    }
    NotesTerm();
    ASSERT_EQ(server.start(), 0);
    EXPECT_TRUE(readFile(server.data("names.nsf")) == readFile(restored));
    if (GetParam().broughtByOthers) {
        replace(kept, journal);
    }
    ASSERT_EQ(bringOnline("names.nsf"), 0);
    EXPECT_EQ(show(server, "names.nsf")["digest"], dominoSimJson({"show", restored})["digest"]);
}

INSTANTIATE_TEST_SUITE_P(Of, LeftoverJournal,
                         ::testing::Values(JournalCase{"AKilledWriter", true, false},
                                           JournalCase{"BroughtWhileOffline", false, true}),
                         [](const auto& test) { return std::string(test.param.title); });

} // namespace
} // namespace simulator_tests
