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

TEST(TakeOffline, SucceedsOnlyWhileNobodyHasTheDatabaseOpen) {
    const TestServer server;
    const std::string name = "names.nsf";
    EXPECT_EQ(bringOnline(name), 0) << "it is online already";
    EXPECT_EQ(takeOffline(name), 0);
    EXPECT_EQ(takeOffline(name), 0) << "it is offline already";
    EXPECT_EQ(openStatus(name), kOfflineStatus);
    EXPECT_EQ(bringOnline(name), 0);
    {
        const Holder holder(server, name);
        EXPECT_EQ(takeOffline(name), 5098);
        EXPECT_EQ(takeOffline("mail/user1.nsf"), 0) << "another one";
        { const OpenDb db(name); }
        EXPECT_EQ(takeOffline(name), 5098) << "closing one leaves the other";
    }
    {
        const OpenDb db(name);
        EXPECT_EQ(takeOffline(name), 5098) << "this process";
    }
    {
        const Workload workload(server, name);
        EXPECT_EQ(takeOffline(name), 5098);
    }
    {
        const Holder holder(server, name, "0.3");
        EXPECT_EQ(takeOffline(name, 60), 0) << "waits for the holder";
    }
}

TEST(OfflineDatabase, IsClosedToEverybodyUntilItIsBroughtOnline) {
    const TestServer server;
    const std::string name = "names.nsf";
    dominoSim({"saved", server.root(), name});
    const auto before = show(server, name);
    EXPECT_EQ(before["offline"], false);
    dominoSim({"offline", server.root(), name});
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
          {"hold", server.root(), name, "--seconds", "0.01"},
          {"workload", server.root(), name, "--seconds", "0.01", "--manifest", manifest}}) {
        EXPECT_NE(dominoSim(command, 1).output.find("offline"), std::string::npos) << command[0];
    }
    EXPECT_EQ(show(server, name)["offline"], true);
    EXPECT_EQ(show(server, name)["digest"], before["digest"]);
    dominoSim({"online", server.root(), name});
    EXPECT_EQ(openStatus(name), 0);
    dominoSim({"offline", server.root(), name});
    fs::remove(server.data(name));
    dominoSim({"create", server.root(), name}, 1);
    EXPECT_EQ(openStatus(name), kOfflineStatus);
    EXPECT_EQ(bringOnline(name), 259);
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

// A journal of a writer that was killed: there when the database is taken offline, and turning up
// again while it is.
TEST(LeftoverJournal, IsNotRolledBackIntoTheNewFile) {
    const TestServer server({"--style", "none"});
    const fs::path restored = server.folder / "restored.nsf";
    replace(server.data("mail/user1.nsf"), restored);
    dominoSim({"put", server.root(), "names.nsf", "--count", "300", "--crash", "half-written"},
              1000 + SIGKILL);
    const fs::path journal = fs::path(server.root()) / "state/journals/names.nsf-journal";
    ASSERT_GT(fs::file_size(journal), 0U);
    const fs::path kept = server.folder / "journal";
    replace(journal, kept);
    ASSERT_EQ(takeOffline("names.nsf"), 0);
    EXPECT_EQ(show(server, "names.nsf")["integrity"], "ok") << "the old file was settled first";
    EXPECT_FALSE(fs::exists(journal));
    replace(restored, server.data("names.nsf"));
    replace(kept, journal);
    NotesTerm();
    ASSERT_EQ(server.start(), 0);
    EXPECT_TRUE(readFile(server.data("names.nsf")) == readFile(restored));
    replace(kept, journal);
    ASSERT_EQ(bringOnline("names.nsf"), 0);
    EXPECT_EQ(show(server, "names.nsf")["digest"], dominoSimJson({"show", restored})["digest"]);
}

} // namespace
} // namespace simulator_tests
