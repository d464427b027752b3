// Restores at the module's interface, over the simulator.
#include <cstring>
#include <gmock/gmock.h>
#include <sstream>

#include "notes_api/types.h"
#include "tests/interface/module_host.h"
#include "tests/interface/own_process.h"

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace fs = std::filesystem;

// A server with a store of what its databases were, and a client that restores from it as the
// module tells it to.
class RestoringClient {
  public:
    RestoringClient() {
        for (const char* name : {"names.nsf", "mail/user1.nsf"}) {
            const fs::path stored = server.folder.file(std::string("store/") + name);
            fs::create_directories(stored.parent_path());
            fs::copy_file(server.data(name), stored);
        }
    }

    // Announces a directory and returns where it is to be.
    std::string directory(const std::string& path) {
        char szItem[1028] = "";
        path.copy(szItem, sizeof szItem - 1);
        EXPECT_EQ(module.SetItem(DB_ITEM_TYPE_DIRECTORY, szItem), DB_NUM_I_OK) << module.error();
        return szItem;
    }

    // Announces a file, writes what the store has under `name` where the module says, and finishes
    // it; `target` is where. Returns the answer to the finish, or to the announcement.
    int file(const std::string& path, const std::string& name) {
        char szItem[1028] = "";
        path.copy(szItem, sizeof szItem - 1);
        if (const int result = module.SetItem(DB_ITEM_TYPE_FILE, szItem); result != DB_NUM_I_OK) {
            return result;
        }
        target = szItem;
        fs::create_directories(fs::path(target).parent_path());
        fs::copy_file(server.folder.file("store/" + name), target,
                      fs::copy_options::overwrite_existing);
        return module.ItemFinishStatus(finishAs);
    }

    // Restores one database that the client announces in its directory.
    int restore(const std::string& name) {
        const std::string path = server.data(name);
        directory(path.substr(0, path.rfind('/')));
        return file(path, name);
    }

    int open(std::vector<std::string> variables, DB_OPERATION_LEVEL level = DB_LEVEL_FULL) {
        if (std::none_of(variables.begin(), variables.end(), [](const std::string& variable) {
                return variable.starts_with("DATABASE=");
            })) {
            variables.emplace_back("DATABASE=NOTES");
        }
        return module.open(server, DB_TYPE_RST, level, variables);
    }

    // A sound database's content and its notes' ids, a line each, as domino-sim prints them.
    std::string shown(const std::string& file) const {
        const std::string output = server.folder.file("shown");
        const std::string command = QRTLN_DOMINO_SIM " show --ids " + file +
                                    " | grep -v -e ^file: " + "-e ^offline: > " + output;
        EXPECT_EQ(std::system(command.c_str()), 0) << file;
        const std::string text = server.folder.read("shown");
        EXPECT_THAT(text, HasSubstr("integrity: ok"));
        return text;
    }
    bool hasNote(const std::string& name, const std::string& id) const {
        std::istringstream lines(shown(server.data(name)));
        for (std::string word; lines >> word;) {
            if (word == id || word == id + ",") {
                return true;
            }
        }
        return false;
    }
    // Writes a note and returns its id.
    std::string put(const std::string& name, const std::string& options = "") const {
        const std::string command = QRTLN_DOMINO_SIM " put " + server.server() + " " + name + " " +
                                    options + " > " + server.folder.file("put");
        EXPECT_EQ(std::system(command.c_str()), 0);
        std::string id = server.folder.read("put");
        id.erase(id.find_last_not_of('\n') + 1);
        return id;
    }
    // Takes the present content of a database into the store.
    void store(const std::string& name) const {
        fs::copy_file(server.data(name), server.folder.file("store/" + name),
                      fs::copy_options::overwrite_existing);
    }

    SimulatedServer server;
    Module module;
    std::string target;
    DB_ITEM_RESULT finishAs = DB_ITEM_SUCCESS;
};

TEST(Restore, LostDatabasesActivatedAreInPlaceAndReadable) {
    for (const bool directoryLost : {false, true}) {
        SCOPED_TRACE(directoryLost);
        inOwnProcess([&] {
            RestoringClient client;
            fs::remove(client.server.data("mail/user1.nsf"));
            if (directoryLost) {
                fs::remove_all(client.server.data("mail"));
            }
            ASSERT_EQ(client.open({"ACTIVATE=YES"}), DB_NUM_I_OK) << client.module.error();
            EXPECT_EQ(client.restore("mail/user1.nsf"), DB_NUM_I_OK) << client.module.error();
            EXPECT_EQ(client.target, client.server.folder.file("tmp/mail/user1.nsf"));
            EXPECT_EQ(client.restore("names.nsf"), DB_NUM_I_OK) << "over a live one";
            EXPECT_EQ(client.file(client.server.data("user.id"), "names.nsf"), DB_NUM_I_OK)
                << "no database, nothing to activate";
            EXPECT_THAT(client.server.filesBelow("tmp"), IsEmpty());
            EXPECT_EQ(client.server.calls("NSFTakeDatabaseOffline("), 1);
            EXPECT_EQ(client.server.calls("NSFBringDatabaseOnline("), 2);
            EXPECT_EQ(client.module.close("STATUS=0"), DB_NUM_I_OK);
            for (const char* name : {"names.nsf", "mail/user1.nsf"}) {
                client.shown(client.server.data(name));
                client.put(name); // its users can write to it
            }
        });
    }
}

TEST(Restore, WhatIsNotFinishedAsRestoredChangesNothing) {
    for (const char* kind : {"ACTIVATE=YES", "INFO=-o \"deld=202001010000\""}) {
        SCOPED_TRACE(kind);
        inOwnProcess([&] {
            RestoringClient client;
            ASSERT_EQ(client.open({kind}), DB_NUM_I_OK);
            const long opened = client.server.calls("NSFDbOpen(");
            for (const DB_ITEM_RESULT result : {DB_ITEM_FAIL, DB_ITEM_WARNING, DB_ITEM_EXCLUDED}) {
                client.finishAs = result;
                EXPECT_EQ(client.restore("names.nsf"), DB_NUM_I_OK);
                EXPECT_TRUE(fs::exists(client.target));
            }
            EXPECT_EQ(client.server.calls("NSFTakeDatabaseOffline("), 0);
            EXPECT_EQ(client.server.calls("NSFDbOpen("), opened);
            client.module.close("STATUS=1");
        });
    }
}

TEST(Restore, ADatabaseInUseIsNotTouchedAndTheCopyStays) {
    inOwnProcess([] {
        RestoringClient client;
        client.put("names.nsf"); // newer than the copy
        const std::string before = client.shown(client.server.data("names.nsf"));
        ASSERT_EQ(client.open({"ACTIVATE=YES"}), DB_NUM_I_OK);
        std::uint32_t handle = 0;
        const auto openDatabase =
            simulatorFunction<std::uint16_t (*)(const char*, std::uint32_t*)>("NSFDbOpen");
        ASSERT_EQ(openDatabase("names.nsf", &handle), 0);
        EXPECT_EQ(client.restore("names.nsf"), DB_NUM_E_FAILED);
        EXPECT_EQ(client.shown(client.server.data("names.nsf")), before);
        EXPECT_THAT(client.server.filesBelow("tmp"), ::testing::ElementsAre("names.nsf"));
        EXPECT_TRUE(Module::logged("QRTLN_Activate(): WARNING: Please shutdown notes server and do "
                                   "manually:  dbrecover RESTORE " +
                                   client.target + " " + client.server.data("names.nsf")));
        EXPECT_NE(client.module.error(), "");
        EXPECT_EQ(client.module.close("STATUS=1"), DB_NUM_I_OK);
    });
}

TEST(Restore, DirectoryOfAnEarlierOperationIsNoPlaceForAnActivation) {
    inOwnProcess([] {
        RestoringClient client;
        ASSERT_EQ(client.open({"ACTIVATE=YES"}), DB_NUM_I_OK);
        EXPECT_EQ(client.restore("mail/user1.nsf"), DB_NUM_I_OK);
        client.module.close("STATUS=0");
        client.module.error();
        ASSERT_EQ(client.open({"ACTIVATE=YES"}), DB_NUM_I_OK);
        EXPECT_EQ(client.file(client.server.data("names.nsf"), "names.nsf"), DB_NUM_E_FAILED);
        EXPECT_EQ(client.module.error(),
                  "QRTLN_Activate(): no directory was announced for file [names.nsf]");
        EXPECT_FALSE(fs::exists(client.server.data("mail/names.nsf")));
        EXPECT_TRUE(fs::exists(client.target));
        client.module.close("STATUS=1");
    });
}

TEST(Restore, WithoutActivationDatabasesWaitUnderTmpDirAndOtherFilesGoToTheirPlace) {
    inOwnProcess([] {
        RestoringClient client;
        const std::string live = client.shown(client.server.data("names.nsf"));
        client.put("names.nsf");
        const std::string newer = client.shown(client.server.data("names.nsf"));
        ASSERT_EQ(client.open({}), DB_NUM_I_OK);
        EXPECT_EQ(client.restore("names.nsf"), DB_NUM_I_OK);
        EXPECT_EQ(client.shown(client.server.folder.file("tmp/names.nsf")), live);
        EXPECT_EQ(client.shown(client.server.data("names.nsf")), newer);
        EXPECT_EQ(client.file(client.server.data("user.id"), "names.nsf"), DB_NUM_I_OK);
        EXPECT_EQ(client.target, client.server.data("user.id"));
        // What cannot be placed is told of the place, not of the live database.
        std::ofstream(client.server.folder.file("tmp/mail")) << "in the way";
        std::string unplaced = client.server.data("mail/deep/user1.nsf");
        unplaced.resize(1028);
        EXPECT_EQ(client.module.SetItem(DB_ITEM_TYPE_FILE, unplaced.data()), DB_NUM_E_FAILED);
        const std::string place = client.server.folder.file("tmp/mail/deep/user1.nsf");
        EXPECT_STREQ(unplaced.c_str(), place.c_str());
        EXPECT_TRUE(Module::traced("DB_SetItem(): QRTLN_SetFile returned item: " + place));
        EXPECT_TRUE(Module::logged("DB_SetItem(); QRTLN_SetFile(" + place + ") call failed"));
        client.module.error();
        std::string tooLong = client.server.data(std::string(1100, 'x') + ".nsf");
        EXPECT_EQ(client.module.SetItem(DB_ITEM_TYPE_FILE, tooLong.data()), DB_NUM_E_FAILED);
        EXPECT_EQ(client.module.error(), "DB_SetItem(): the item's path is longer than 1027");
        // Outside the data directory a database is written where the client asks.
        const std::string elsewhere = client.server.folder.file("elsewhere/x.nsf");
        EXPECT_EQ(client.file(elsewhere, "names.nsf"), DB_NUM_I_OK);
        EXPECT_EQ(client.target, elsewhere);
        EXPECT_EQ(client.server.calls("NSFTakeDatabaseOffline("), 0);
        client.module.close("STATUS=0");
    });
}

TEST(Restore, RelocationChoosesTheRelocatedPaths) {
    struct Case {
        const char* info;
        bool plain;
    };
    for (const Case& c : {Case{"INFO=-R \"@/r\"", false}, Case{"INFO=-R \"@/r\" -o \"p\"", true}}) {
        SCOPED_TRACE(c.info);
        inOwnProcess([&] {
            RestoringClient client;
            std::string info = c.info;
            info.replace(info.find('@'), 1, client.server.folder.path());
            const std::string name = client.server.data("names.nsf");
            ASSERT_EQ(client.open({"DATABASE=QRTLN:" + name, info}), DB_NUM_I_OK)
                << client.module.error();
            const std::string root = client.server.folder.file("r");
            const std::string relocated = root + (c.plain ? "/names.nsf" : name);
            const std::string folder = relocated.substr(0, relocated.rfind('/'));
            EXPECT_EQ(client.directory(folder), folder) << "kept";
            EXPECT_EQ(client.file(relocated, "names.nsf"), DB_NUM_I_OK) << client.module.error();
            EXPECT_EQ(client.target, relocated);
            client.shown(relocated);
            // What was not chosen is not restored, without a word, and nothing is to be finished
            // for it: the next finish is of the item before.
            Module::s_logs.clear();
            char szChosen[1028] = "";
            relocated.copy(szChosen, sizeof szChosen - 1);
            EXPECT_EQ(client.module.SetItem(DB_ITEM_TYPE_FILE, szChosen), DB_NUM_I_OK);
            Module::s_logs.clear();
            EXPECT_EQ(client.file(root + "/other.id", "names.nsf"), DB_NUM_E_FAILED);
            EXPECT_THAT(Module::s_logs, IsEmpty());
            Module::s_traces.clear();
            EXPECT_EQ(client.module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_I_OK);
            EXPECT_TRUE(Module::traced("DB_ItemFinishStatus(): Item " + relocated));
            EXPECT_EQ(client.module.ItemFinishStatus(DB_ITEM_SUCCESS), DB_NUM_E_FAILED);
            client.module.error();
            char szUpwards[1028] = "";
            client.server.data("mail/../../x").copy(szUpwards, sizeof szUpwards - 1);
            EXPECT_EQ(client.module.SetItem(DB_ITEM_TYPE_DIRECTORY, szUpwards), DB_NUM_E_FAILED);
            EXPECT_TRUE(Module::logged("DB_SetItem(); Setting restore directory [" +
                                       std::string(szUpwards) + "] failed"));
            EXPECT_EQ(client.module.close("STATUS=0"), DB_NUM_I_OK);
        });
    }
}

TEST(Restore, IncrementalLevelRestoresTransactionLogsAlone) {
    inOwnProcess([] {
        RestoringClient client;
        ASSERT_EQ(client.open({"ACTIVATE=YES"}, DB_LEVEL_INCR), DB_NUM_I_OK);
        const std::string log = client.server.folder.file("logs2/S0000001.TXN");
        EXPECT_EQ(client.file(log, "names.nsf"), DB_NUM_I_OK);
        EXPECT_EQ(client.target, log);
        EXPECT_EQ(client.file(client.server.data("user.id"), "names.nsf"), DB_NUM_E_FAILED);
        client.module.close("STATUS=0");
        // A database that is named comes back, but waits for the last part of the restore.
        const std::string name = client.server.data("names.nsf");
        ASSERT_EQ(client.open({"ACTIVATE=YES", "DATABASE=QRTLN:" + name}, DB_LEVEL_INCR),
                  DB_NUM_I_OK);
        EXPECT_EQ(client.restore("names.nsf"), DB_NUM_I_OK);
        EXPECT_TRUE(fs::exists(client.server.folder.file("tmp/names.nsf")));
        EXPECT_EQ(client.server.calls("NSFBringDatabaseOnline("), 0);
        client.module.close("STATUS=0");
    });
}

// The notes of mail/user1.nsf that are unread for the server's user, asked in this process.
std::vector<std::string> unread() {
    DWORD handle = 0;
    DHANDLE table = 0;
    char szUser[258] = "";
    EXPECT_EQ(
        simulatorFunction<STATUS (*)(const char*, DWORD*)>("NSFDbOpen")("mail/user1.nsf", &handle),
        0);
    EXPECT_EQ(simulatorFunction<STATUS (*)(char*)>("SECKFMGetUserName")(szUser), 0);
    EXPECT_EQ(simulatorFunction<STATUS (*)(DWORD, char*, WORD, BOOL, DHANDLE*)>(
                  "NSFDbGetUnreadNoteTable")(handle, szUser, static_cast<WORD>(std::strlen(szUser)),
                                             0, &table),
              0);
    std::vector<std::string> ids;
    NOTEID id = 0;
    const auto scan = simulatorFunction<BOOL (*)(DHANDLE, BOOL, NOTEID*)>("IDScan");
    for (BOOL first = 1; scan(table, first, &id) != 0; first = 0) {
        ids.push_back(std::to_string(id));
    }
    return ids;
}

TEST(Restore, DeletedDocumentsComeBackUnread) {
    inOwnProcess([] {
        RestoringClient client;
        const std::string id = client.put("mail/user1.nsf", "--text important");
        client.store("mail/user1.nsf");
        const std::string later = client.put("mail/user1.nsf");
        client.server.simulate("delete " + client.server.server() + " mail/user1.nsf " + id);
        ASSERT_FALSE(client.hasNote("mail/user1.nsf", id));
        ASSERT_EQ(client.open({"INFO=-o \"deld=202001010000\""}), DB_NUM_I_OK);
        EXPECT_EQ(client.restore("mail/user1.nsf"), DB_NUM_I_OK) << client.module.error();
        EXPECT_TRUE(Module::traced("setNotesAsUnread(): Setting note (" + id + ") as unread."));
        EXPECT_EQ(client.server.calls("NSFDbCopyNote("), 1);
        EXPECT_TRUE(fs::exists(client.target)) << "the copy stays";
        EXPECT_THAT(unread(), ::testing::ElementsAre(id));
        // The live database is the one of this name in the directory that was announced last.
        const std::size_t used = client.server.data("").size();
        client.directory(client.server.data(std::string(1020 - used, 'd')));
        client.module.error();
        EXPECT_EQ(client.file(client.server.data("mail/user1.nsf"), "mail/user1.nsf"),
                  DB_NUM_E_FAILED);
        EXPECT_EQ(client.module.error(),
                  "DB_ItemFinishStatus(): the path of the live database is too long");
        EXPECT_EQ(client.module.close("STATUS=0"), DB_NUM_I_OK);
        EXPECT_TRUE(client.hasNote("mail/user1.nsf", id));
        EXPECT_TRUE(client.hasNote("mail/user1.nsf", later)) << "what came later stays";
    });
}

TEST(Restore, ChangedDocumentsOnTheListComeBackAndTheListIsDeleted) {
    struct Case {
        const char* ending;
        long copied;
    };
    // With carriage returns the list selects nothing, and is deleted all the same.
    for (const Case& c : {Case{"\n", 1}, Case{"\r\n", 0}}) {
        SCOPED_TRACE(c.copied);
        inOwnProcess([&] {
            RestoringClient client;
            const std::string id = client.put("names.nsf", "--text original");
            const std::string other = client.put("names.nsf", "--text original");
            client.store("names.nsf");
            client.put("names.nsf", "--text changed --id " + id);
            client.put("names.nsf", "--text changed --id " + other);
            client.server.folder.write("server/data/noteids_list.txt", id + c.ending);
            ASSERT_EQ(client.open({"INFO=-o \"chgd=202001010000\""}), DB_NUM_I_OK);
            EXPECT_EQ(client.restore("names.nsf"), DB_NUM_I_OK) << client.module.error();
            EXPECT_EQ(client.server.calls("NSFNoteDelete("), c.copied);
            EXPECT_EQ(client.server.calls("NSFDbCopyNote("), c.copied);
            EXPECT_FALSE(fs::exists(client.target));
            EXPECT_FALSE(fs::exists(client.server.data("noteids_list.txt")));
            EXPECT_EQ(client.module.close("STATUS=0"), DB_NUM_I_OK);
            EXPECT_TRUE(client.hasNote("names.nsf", id));
        });
    }
}

} // namespace
