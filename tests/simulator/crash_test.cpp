// Writers that die between the log and the database.
#include "support.h"

#include <gtest/gtest.h>

#include <csignal>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

// What is in the log has happened; without a log, what was not committed has not.
TEST(KilledWriter, IsFinishedByTheNextOpen) {
    struct Case {
        const char* where;
        const char* database;
        bool survives; // whether the change is in the database after the next open
    };
    for (const auto& [where, database, survives] :
         {Case{"after-log", "names.nsf", true}, Case{"half-written", "names.nsf", true},
          Case{"half-written", "plain.nsf", false}}) {
        SCOPED_TRACE(std::string(where) + " " + database);
        const TestServer server;
        dominoSim({"create", server.root(), "plain.nsf", "--unlogged"});
        const auto before = dominoSimJson({"show", server.root(), database});
        dominoSim({"put", server.root(), database, "--count", "40", "--crash", where},
                  1000 + SIGKILL);
        { const OpenDb db(database); }
        const auto after = dominoSimJson({"show", server.root(), database});
        EXPECT_EQ(after["integrity"], "ok");
        EXPECT_EQ(after["commit"].get<int>() - before["commit"].get<int>(), survives ? 1 : 0);
        EXPECT_EQ(after["notes"].get<int>() - before["notes"].get<int>(), survives ? 40 : 0);
        EXPECT_EQ(after["dbiid"], before["dbiid"]);
        dominoSim({"put", server.root(), database});
        EXPECT_EQ(dominoSimJson({"show", server.root(), database})["integrity"], "ok");
    }
}

TEST(KilledWriterAndReplacedDatabase, RecordIsNotAppliedToAnEarlierCopy) {
    const TestServer server;
    const fs::path older = server.folder / "older.nsf";
    fs::copy_file(server.data("names.nsf"), older);
    dominoSim({"put", server.root(), "names.nsf"});
    dominoSim({"put", server.root(), "names.nsf", "--crash", "after-log"}, 1000 + SIGKILL);
    fs::copy_file(older, server.data("names.nsf"), fs::copy_options::overwrite_existing);
    { const OpenDb db("names.nsf"); }
    EXPECT_EQ(dominoSimJson({"show", server.root(), "names.nsf"})["digest"],
              dominoSimJson({"show", older.string()})["digest"]);
}

} // namespace
} // namespace simulator_tests
