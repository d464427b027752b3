// What a server is: its log, who may use its databases, texts, and what domino-sim's check finds.
#include "tests/simulator/support.h"

#include <gmock/gmock.h>

namespace simulator_tests {
namespace {

using ::testing::HasSubstr;

constexpr STATUS kOfflineStatus = 16146;

void fillLog(const TestServer& server, int records) {
    for (int i = 0; i < records; ++i) {
        server.command("put", "names.nsf " + kBigChange);
    }
}

// After a restore the control file is lost, or older than the extents: no record may be
// overwritten. A damaged one is an error and not a new log.
TEST(Log, FindsRecordsThatItsControlFileDoesNotKnow) {
    const TestServer server(kSmallExtents);
    const auto logs = [&] { return nlohmann::json::parse(server.command("logs", "--json")); };
    fillLog(server, 1);
    const std::string control = server.root() + "/logs/nlogctrl.lfh";
    const std::string older = server.folder.file("control");
    fs::copy_file(control, older);
    fillLog(server, 4);
    const auto before = logs();
    fs::remove(control);
    EXPECT_EQ(logs()["nextRecord"], before["nextRecord"]);
    replace(older, control);
    fillLog(server, 1);
    EXPECT_EQ(logs()["nextRecord"], 7);
    EXPECT_EQ(logs()["activeExtent"], 3);
    EXPECT_EQ(logs()["logId"], before["logId"]);
    fs::resize_file(control, 100);
    server.command("put", "names.nsf", 1);
    EXPECT_EQ(fs::file_size(control), 100U);
}

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

TEST(Offline, SucceedsOnlyWhileNobodyHasTheDatabaseOpen) {
    const TestServer server;
    const std::string name = "names.nsf";
    const std::string hold = "hold " + server.root() + " " + name;
    EXPECT_EQ(bringOnline(name), 0) << "it is online already";
    {
        const ServerTask holder(hold);
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
    const ServerTask holder(hold + " --seconds 0.3");
    EXPECT_EQ(takeOffline(name, 60), 0) << "waits for the holder";
    EXPECT_EQ(takeOffline(name), 0) << "it is offline already";
}

TEST(Offline, ADatabaseIsClosedToEverybodyUntilItIsBroughtOnline) {
    const TestServer server;
    const std::string name = "names.nsf";
    const std::string copy = server.folder.file("copy.nsf");
    server.command("saved", name);
    replace(server.data(name), copy);
    server.command("offline", name);
    NotesTerm();
    ASSERT_EQ(server.start(), 0);
    EXPECT_EQ(openStatus(name), kOfflineStatus);
    EXPECT_EQ(openStatus(server.data("mail/../names.nsf")), kOfflineStatus);
    const std::pair<const char*, std::string> commands[] = {
        {"put", name},
        {"delete", name + " 2294"},
        {"compact", name},
        {"hold", name + " --seconds 0.01"},
        {"workload", name + " --seconds 0.01 --manifest " + server.folder.file("manifest")}};
    for (const auto& [command, rest] : commands) {
        EXPECT_THAT(server.command(command, rest, 1), HasSubstr("offline")) << command;
    }
    EXPECT_EQ(server.show(name)["offline"], true);
    EXPECT_EQ(server.show(name)["digest"], show(copy)["digest"]);

    // What is no database stays offline until it is replaced again.
    server.folder.write("server/data/names.nsf", std::string(9000, 'x'));
    EXPECT_EQ(bringOnline(name), 513);
    EXPECT_EQ(openStatus(name), kOfflineStatus);
    fs::remove(server.data(name));
    server.command("create", name, 1);
    EXPECT_EQ(bringOnline(name), 259);
    replace(copy, server.data(name));
    server.command("online", name);
    EXPECT_EQ(openStatus(name), 0);
}

TEST(Check, WantsTheContentOfTheLastStopAsTheManifestHasIt) {
    const TestServer server;
    {
        Workload workload(server, "names.nsf");
        for (int i = 0; i < 5; ++i) {
            workload.awaitCommit();
        }
    }
    const std::string copy = server.folder.file("copy.nsf");
    const std::string manifest = " --manifest " + server.folder.file("manifest.json");
    const auto check = [&](const std::string& database = "names.nsf") {
        return "check " + copy + manifest + " --server " + server.root() + " --database " +
               database;
    };
    const auto expectFound = [&](const char* what) {
        EXPECT_THAT(dominoSim(check(), 4), HasSubstr(what));
    };
    replace(server.data("names.nsf"), copy);
    expectFound("no backup of names.nsf");
    ASSERT_NO_FATAL_FAILURE(backUp(server, "names.nsf", copy));
    dominoSim(check());
    dominoSim(check("mail.box"), 1); // the manifest has nothing of it
    changeFile(copy, "UPDATE notes SET body=x'00' WHERE note_id=(SELECT min(note_id) FROM notes)");
    expectFound("differs");
    changeFile(copy, "DELETE FROM notes WHERE note_id=(SELECT min(note_id) FROM notes)");
    expectFound("is missing");
    server.command("put", "names.nsf" + manifest);
    replace(server.data("names.nsf"), copy);
    expectFound("the backup was stopped at");
    server.command("put", "names.nsf");
    replace(server.data("names.nsf"), copy);
    expectFound("the manifest has");
    dominoSim("damage " + copy);
    expectFound("");
    fs::resize_file(copy, 10);
    expectFound("");
}

} // namespace
} // namespace simulator_tests
