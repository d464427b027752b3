// Restores at the module's interface, over the simulator.
#include <gmock/gmock.h>

#include "tests/interface/module_host.h"
#include "tests/interface/own_process.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

// A server with a store of what its databases were, and a client that restores from it as the
// module tells it to.
struct Restore : Host {
    Restore() {
        store("names.nsf");
        store("mail/user1.nsf");
    }
    // Takes the present content of a database into the store.
    void store(const std::string& name) const {
        server.copy(server.data(name), server.folder.file("store/" + name));
    }

    // Announces an item; `target` receives where it is to be.
    int announce(DB_ITEM_TYPE type, const std::string& path) {
        char szItem[1028] = "";
        path.copy(szItem, sizeof szItem - 1);
        const int result = module.SetItem(type, szItem);
        target = szItem;
        return result;
    }
    // Announces a file, writes what the store has under `name` where the module says, and finishes
    // it. Returns the answer to the finish, or to the announcement.
    int file(const std::string& path, const std::string& name = "names.nsf") {
        if (const int result = announce(DB_ITEM_TYPE_FILE, path); result != DB_NUM_I_OK) {
            return result;
        }
        server.copy(server.folder.file("store/" + name), target);
        return module.ItemFinishStatus(finishAs);
    }
    // Restores one database that the client announces in its directory.
    int restore(const std::string& name) {
        const std::string path = server.data(name);
        EXPECT_EQ(announce(DB_ITEM_TYPE_DIRECTORY, path.substr(0, path.rfind('/'))), DB_NUM_I_OK)
            << module.error();
        return file(path, name);
    }

    int open(const std::vector<std::string>& variables, const std::string& selection = "NOTES",
             DB_OPERATION_LEVEL level = DB_LEVEL_FULL) {
        auto all = variables;
        all.push_back("DATABASE=" + selection);
        return module.open(server, DB_TYPE_RST, level, all);
    }
    bool hasNote(const std::string& name, const std::string& id) const {
        const std::string shown = server.simulate("show --ids " + server.data(name));
        return shown.find("\n  " + id) != std::string::npos;
    }

    std::string target;
    DB_ITEM_RESULT finishAs = DB_ITEM_SUCCESS;
};

TEST(Restore, WhatIsNotFinishedAsRestoredChangesNothing) {
    for (const char* kind : {"ACTIVATE=YES", "INFO=-o \"deld=202001010000\""}) {
        SCOPED_TRACE(kind);
        inOwnProcess([&] {
            Restore test;
            ASSERT_EQ(test.open({kind}), DB_NUM_I_OK);
            const long opened = test.server.calls("NSFDbOpen(");
            for (const DB_ITEM_RESULT result : {DB_ITEM_FAIL, DB_ITEM_WARNING, DB_ITEM_EXCLUDED}) {
                test.finishAs = result;
                EXPECT_EQ(test.restore("names.nsf"), DB_NUM_I_OK);
                EXPECT_TRUE(fs::exists(test.target));
            }
            EXPECT_EQ(test.server.calls("NSFTakeDatabaseOffline("), 0);
            EXPECT_EQ(test.server.calls("NSFDbOpen("), opened);
            test.module.close("STATUS=1");
        });
    }
}

TEST_IN_OWN_PROCESS(Restore, ADatabaseInUseIsNotTouchedAndTheCopyStays) {
    server.put("names.nsf"); // newer than the copy
    const std::string before = server.live("names.nsf");
    ASSERT_EQ(open({"ACTIVATE=YES"}), DB_NUM_I_OK);
    const ServerTask user("hold " + server.server() + " names.nsf");
    EXPECT_EQ(restore("names.nsf"), DB_NUM_E_FAILED);
    EXPECT_EQ(server.live("names.nsf"), before);
    EXPECT_THAT(server.filesBelow("tmp"), ElementsAre("names.nsf"));
    EXPECT_TRUE(Module::logged("QRTLN_Activate(): WARNING: Please shutdown notes server and do "
                               "manually:  dbrecover RESTORE " +
                               target + " " + server.data("names.nsf")));
    EXPECT_NE(module.error(), "");
    EXPECT_EQ(module.close("STATUS=1"), DB_NUM_I_OK);
}

TEST_IN_OWN_PROCESS(Restore, DirectoryOfAnEarlierOperationIsNoPlaceForAnActivation) {
    ASSERT_EQ(open({"ACTIVATE=YES"}), DB_NUM_I_OK);
    EXPECT_EQ(restore("mail/user1.nsf"), DB_NUM_I_OK);
    module.close("STATUS=0");
    module.error();
    ASSERT_EQ(open({"ACTIVATE=YES"}), DB_NUM_I_OK);
    EXPECT_EQ(file(server.data("names.nsf")), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), "QRTLN_Activate(): no directory was announced for file [names.nsf]");
    EXPECT_FALSE(fs::exists(server.data("mail/names.nsf")));
    EXPECT_TRUE(fs::exists(target));
    announce(DB_ITEM_TYPE_DIRECTORY, server.data(std::string(1020 - server.data("").size(), 'd')));
    module.error();
    EXPECT_EQ(file(server.data("names.nsf")), DB_NUM_E_FAILED);
    EXPECT_THAT(module.error(), ::testing::StartsWith("QRTLN_Activate(): the path of the live "));
    module.close("STATUS=1");
}

TEST_IN_OWN_PROCESS(Restore, WithoutActivationDatabasesWaitUnderTmpDirAndOtherFilesGoToTheirPlace) {
    const std::string stored = server.live("names.nsf");
    server.put("names.nsf");
    const std::string newer = server.live("names.nsf");
    ASSERT_EQ(open({}), DB_NUM_I_OK);
    EXPECT_EQ(restore("names.nsf"), DB_NUM_I_OK);
    EXPECT_EQ(server.content(server.folder.file("tmp/names.nsf")), stored);
    EXPECT_EQ(server.live("names.nsf"), newer);
    // Other files, and databases outside the data directory, are written where the client asks.
    for (const std::string& elsewhere :
         {server.data("user.id"), server.folder.file("elsewhere/x.nsf")}) {
        EXPECT_EQ(file(elsewhere), DB_NUM_I_OK);
        EXPECT_EQ(target, elsewhere);
    }
    // What cannot be placed is told of the place, not of the live database.
    server.folder.write("tmp/mail", "in the way");
    const std::string place = server.folder.file("tmp/mail/deep/user1.nsf");
    EXPECT_EQ(announce(DB_ITEM_TYPE_FILE, server.data("mail/deep/user1.nsf")), DB_NUM_E_FAILED);
    EXPECT_EQ(target, place);
    EXPECT_TRUE(Module::logged("DB_SetItem(); QRTLN_SetFile(" + place + ") call failed"));
    module.error();
    std::string tooLong = server.data(std::string(1100, 'x') + ".nsf");
    EXPECT_EQ(module.SetItem(DB_ITEM_TYPE_FILE, tooLong.data()), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), "DB_SetItem(): the item's path is longer than 1027");
    EXPECT_EQ(server.calls("NSFTakeDatabaseOffline("), 0);
    module.close("STATUS=0");
}

TEST_IN_OWN_PROCESS(Restore, NamedDatabasesComeBackUnderTmpDirAndOthersAreSkipped) {
    const std::string name = server.data("mail/user1.nsf");
    const std::string place = server.folder.file("tmp/mail/user1.nsf");
    ASSERT_EQ(open({}, "QRTLN:" + name), DB_NUM_I_OK);
    EXPECT_EQ(announce(DB_ITEM_TYPE_DIRECTORY, server.data("mail/")), DB_NUM_I_OK);
    EXPECT_EQ(target, server.folder.file("tmp/mail"));
    // A client announces it where it was or where it goes.
    for (const std::string& announced : {name, place}) {
        EXPECT_EQ(file(announced, "mail/user1.nsf"), DB_NUM_I_OK) << announced;
        EXPECT_EQ(target, place);
        EXPECT_EQ(file(fs::path(announced).replace_filename("user2.nsf")), DB_NUM_E_FAILED);
    }
    module.close("STATUS=0");
}

TEST(Restore, RelocationChoosesTheRelocatedPaths) {
    for (const bool plain : {false, true}) {
        SCOPED_TRACE(plain);
        inOwnProcess([&] {
            Restore test;
            Module& module = test.module;
            const std::string root = test.server.folder.file("r");
            const std::string name = test.server.data("names.nsf");
            const std::string info = "INFO=-R \"" + root + "\"" + (plain ? " -o \"p\"" : "");
            ASSERT_EQ(test.open({info}, "QRTLN:" + name), DB_NUM_I_OK) << module.error();
            const std::string relocated = root + (plain ? "/names.nsf" : name);
            const std::string folder = relocated.substr(0, relocated.rfind('/'));
            EXPECT_EQ(test.announce(DB_ITEM_TYPE_DIRECTORY, folder), DB_NUM_I_OK);
            EXPECT_EQ(test.target, folder) << "kept";
            EXPECT_EQ(test.file(relocated), DB_NUM_I_OK) << module.error();
            EXPECT_EQ(test.target, relocated);
            EXPECT_EQ(test.server.content(relocated), test.server.live("names.nsf"));
            // What was not chosen is not restored, without a word, and nothing is to be finished
            // for it: the next finish is of the item before.
            EXPECT_EQ(test.announce(DB_ITEM_TYPE_FILE, relocated), DB_NUM_I_OK);
            Module::s_logs.clear();
            EXPECT_EQ(test.file(root + "/other.id"), DB_NUM_E_FAILED);
            EXPECT_THAT(Module::s_logs, IsEmpty());
            Module::s_traces.clear();
            EXPECT_EQ(module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_I_OK);
            EXPECT_TRUE(Module::traced("DB_ItemFinishStatus(): Item " + relocated));
            EXPECT_EQ(module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_E_FAILED);
            module.error();
            const std::string upwards = test.server.data("mail/../../x");
            EXPECT_EQ(test.announce(DB_ITEM_TYPE_DIRECTORY, upwards), DB_NUM_E_FAILED);
            EXPECT_TRUE(
                Module::logged("DB_SetItem(); Setting restore directory [" + upwards + "] failed"));
            EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
        });
    }
}

TEST_IN_OWN_PROCESS(Restore, IncrementalLevelRestoresTransactionLogsAlone) {
    ASSERT_EQ(open({"ACTIVATE=YES"}, "NOTES", DB_LEVEL_INCR), DB_NUM_I_OK);
    const std::string log = server.folder.file("logs2/S0000001.TXN");
    EXPECT_EQ(file(log), DB_NUM_I_OK);
    EXPECT_EQ(target, log);
    EXPECT_EQ(file(server.data("user.id")), DB_NUM_E_FAILED);
    module.close("STATUS=0");
    // A database that is named comes back, but waits for the last part of the restore.
    ASSERT_EQ(open({"ACTIVATE=YES"}, "QRTLN:" + server.data("names.nsf"), DB_LEVEL_INCR),
              DB_NUM_I_OK);
    EXPECT_EQ(restore("names.nsf"), DB_NUM_I_OK);
    EXPECT_THAT(server.filesBelow("tmp"), ElementsAre("names.nsf"));
    EXPECT_EQ(server.calls("NSFBringDatabaseOnline("), 0);
    module.close("STATUS=0");
}

TEST_IN_OWN_PROCESS(Restore, DeletedDocumentsComeBackUnread) {
    const std::string mail = "mail/user1.nsf";
    const std::string id = server.put(mail, "--text important");
    store(mail);
    const std::string later = server.put(mail);
    server.simulate("delete " + server.server() + " " + mail + " " + id);
    ASSERT_FALSE(hasNote(mail, id));
    ASSERT_EQ(open({"INFO=-o \"deld=202001010000\""}), DB_NUM_I_OK);
    EXPECT_EQ(restore(mail), DB_NUM_I_OK) << module.error();
    EXPECT_TRUE(Module::traced("setNotesAsUnread(): Setting note (" + id + ") as unread."));
    EXPECT_EQ(server.calls("NSFDbCopyNote("), 1);
    EXPECT_TRUE(fs::exists(target)) << "the copy stays";
    EXPECT_EQ(server.simulate("unread " + server.server() + " " + mail), id + "\n");
    // The live database is the one of this name in the directory that was announced last.
    const std::size_t used = server.data("").size();
    announce(DB_ITEM_TYPE_DIRECTORY, server.data(std::string(1020 - used, 'd')));
    module.error();
    EXPECT_EQ(file(server.data(mail), mail), DB_NUM_E_FAILED);
    EXPECT_EQ(module.error(), "DB_ItemFinishStatus(): the path of the live database is too long");
    EXPECT_EQ(module.close("STATUS=0"), DB_NUM_I_OK);
    EXPECT_TRUE(hasNote(mail, id));
    EXPECT_TRUE(hasNote(mail, later)) << "what came later stays";
}

} // namespace
