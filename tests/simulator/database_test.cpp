// Opening databases and what they say about themselves.
#include "support.h"

#include <gtest/gtest.h>

#include <fstream>

namespace simulator_tests {
namespace {

TEST(NsfDbOpen, TakesAbsoluteAndTranslatedPathsOfAnyLength) {
    const TestServer server;
    const std::string folder(200, 'd');
    const std::string name =
        folder + "/" + folder + "/" + folder + "/post-\xC3\xA9\xE4\xB8\xAD.nsf";
    dominoSim({"create", server.root(), name});
    char lmbcs[1028] = {};
    ASSERT_GT(OSTranslate(0, server.data(name).c_str(), 0xFFFF, lmbcs, sizeof lmbcs), 600);
    const OpenDb db(lmbcs);
    dominoSim({"put", server.root(), name});
}

TEST(LogInfo, TellsLoggedDatabasesFromOthersAndFollowsCompaction) {
    const TestServer server;
    dominoSim({"create", server.root(), "plain.nsf", "--unlogged"});
    const auto text = [](const UNIVERSALNOTEID& id) {
        return std::string(reinterpret_cast<const char*>(&id), sizeof id);
    };
    const auto [logged, first] = logInfo("names.nsf");
    EXPECT_EQ(logged, 1);
    dominoSim({"put", server.root(), "names.nsf"});
    EXPECT_EQ(text(logInfo("names.nsf").second), text(first)) << "a change keeps the DBIID";
    dominoSim({"compact", server.root(), "names.nsf"});
    EXPECT_EQ(logInfo("names.nsf").first, 1);
    EXPECT_NE(text(logInfo("names.nsf").second), text(first));
    for (const char* name : {"pubnames.ntf", "plain.nsf"}) { // templates are not logged
        EXPECT_EQ(logInfo(name).first, 0);
        EXPECT_EQ(text(logInfo(name).second), std::string(sizeof first, '\0'));
    }
    // Changes that the log does not have end what it can roll forward.
    const std::string before = text(logInfo("mail.box").second);
    for (const char logging : {'0', '1'}) {
        std::string ini = readFile(server.root() + "/notes.ini");
        ini[ini.find("TRANSLOG_Status=") + 16] = logging;
        std::ofstream(server.root() + "/notes.ini") << ini;
        dominoSim({"put", server.root(), "mail.box"});
    }
    EXPECT_NE(text(logInfo("mail.box").second), before);
}

TEST(ModifiedNotes, AreThoseSinceATimeWithDeletedOnesMarked) {
    const TestServer server;
    const OpenDb db("names.nsf");
    TIMEDATE wildcard = {};
    TIMEDATE now = {};
    DHANDLE table = 0;
    TimeConstant(2, &wildcard);
    ASSERT_EQ(NSFDbGetModifiedNoteTable(db.handle, 0x7FFF, wildcard, &now, &table), 0);
    const DWORD all = IDEntries(table);
    EXPECT_EQ(all, 60U);
    EXPECT_EQ(IDDestroyTable(table), 0);

    // Later than every note: the times of the server have hundredths of a second.
    TIMEDATE later = now;
    later.Innards[0] += 1;
    EXPECT_EQ(NSFDbGetModifiedNoteTable(db.handle, 0x7FFF, later, &now, &table), 572);
    EXPECT_EQ(table, 0U);

    const std::string created = dominoSim({"put", server.root(), "names.nsf"}).output;
    dominoSim({"delete", server.root(), "names.nsf", "2294"});
    ASSERT_EQ(NSFDbGetModifiedNoteTable(db.handle, 1, later, &now, &table), 0);
    NOTEID id = 0;
    EXPECT_EQ(idsOf(table),
              (std::vector<NOTEID>{static_cast<NOTEID>(std::stoul(created)), 0x80000000U | 2294U}));
    EXPECT_EQ(NSFDbGetModifiedNoteTable(db.handle, 2, later, &now, &id), 572) << "no such class";

    EXPECT_EQ(IDDestroyTable(table), 0);
    EXPECT_NE(IDDestroyTable(table), 0);
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_ID_TABLES), 0U);
}

} // namespace
} // namespace simulator_tests
