// Single notes: copying, deleting, unread marks, and the user's name.
#include "support.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <fstream>

namespace fs = std::filesystem;

namespace simulator_tests {
namespace {

constexpr NOTEID kFirstNote = 2294;
constexpr NOTEID kSecondNote = 2298;
constexpr STATUS kNoSuchNote = 16143;
constexpr STATUS kNoteExists = 16147;
constexpr STATUS kWrongDatabaseId = 16148;
constexpr STATUS kNoUnreadTable = 16149;

/// A database and a copy of it from before, as a document restore has them.
class DocumentRestore : public ::testing::Test {
  protected:
    DocumentRestore() {
        fs::copy_file(server.data("names.nsf"), backupFile);
        backup = std::make_unique<OpenDb>(backupFile.string());
        original = std::make_unique<OpenDb>("names.nsf");
    }

    STATUS copy(NOTEID id) const {
        return NSFDbCopyNote(backup->handle, nullptr, nullptr, id, original->handle, nullptr,
                             nullptr, nullptr, nullptr);
    }

    nlohmann::json shown() const { return dominoSimJson({"show", server.root(), "names.nsf"}); }

    TestServer server;
    fs::path backupFile = server.folder / "names.nsf";
    std::unique_ptr<OpenDb> backup;
    std::unique_ptr<OpenDb> original;
};

TEST_F(DocumentRestore, CopyOverALiveNoteOrOfAMissingOneChangesNothing) {
    ASSERT_EQ(NSFNoteDelete(backup->handle, kSecondNote, 0), 0);
    const auto before = shown();
    EXPECT_EQ(copy(kFirstNote), kNoteExists);
    EXPECT_EQ(copy(kSecondNote), kNoSuchNote) << "a stub is no note";
    EXPECT_EQ(copy(99999), kNoSuchNote);
    EXPECT_EQ(copy(0), kNoSuchNote);
    EXPECT_EQ(copy(kFirstNote | 0x80000000U), kNoSuchNote);
    EXPECT_EQ(NSFNoteDelete(original->handle, 99999, 0), kNoSuchNote);
    DBID wrong = {{1, 2}};
    EXPECT_EQ(NSFDbCopyNote(backup->handle, &wrong, nullptr, kFirstNote, original->handle, nullptr,
                            nullptr, nullptr, nullptr),
              kWrongDatabaseId);
    EXPECT_EQ(NSFDbCopyNote(backup->handle, nullptr, nullptr, kFirstNote, original->handle, nullptr,
                            &wrong, nullptr, nullptr),
              kWrongDatabaseId);
    EXPECT_EQ(shown(), before);
}

// A deleted note's id that another note has got meanwhile, or a note that is there under another
// id.
TEST_F(DocumentRestore, CopyIsLoggedAndOneThatWouldOverwriteOrDoubleANoteIsRefused) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(backupFile.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, "UPDATE notes SET note_id=77777 WHERE note_id=2298", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    const auto untouched = shown();
    ASSERT_EQ(NSFNoteDelete(original->handle, kFirstNote, 0), 0);
    EXPECT_EQ(shown()["stubs"], 1);
    ASSERT_EQ(copy(kFirstNote), 0);
    const auto restored = shown();
    EXPECT_EQ(restored["stubs"], 0);
    EXPECT_EQ(restored["lastRecord"].get<int>(), untouched["lastRecord"].get<int>() + 2);
    ASSERT_EQ(NSFNoteDelete(original->handle, kFirstNote, 0), 0);
    dominoSim({"put", server.root(), "names.nsf", "--id", std::to_string(kFirstNote)});
    const auto before = shown();
    EXPECT_EQ(copy(kFirstNote), kNoteExists);
    EXPECT_EQ(copy(77777), kNoteExists);
    EXPECT_EQ(shown(), before);
}

/// A user's unread table; 0 for none.
DHANDLE unreadTable(DBHANDLE db, std::string user, BOOL create = 1) {
    DHANDLE table = 0;
    const STATUS status =
        NSFDbGetUnreadNoteTable(db, user.data(), static_cast<WORD>(user.size()), create, &table);
    EXPECT_EQ(status, table == 0 ? kNoUnreadTable : 0);
    return table;
}

STATUS setUnread(DBHANDLE db, std::string user, DHANDLE before, DHANDLE after) {
    return NSFDbSetUnreadNoteTable(db, user.data(), static_cast<WORD>(user.size()), 0, before,
                                   after);
}

/// Marks one note unread, as a document restore does.
STATUS markUnread(DBHANDLE db, const std::string& user, NOTEID id) {
    const DHANDLE table = unreadTable(db, user);
    DHANDLE before = 0;
    EXPECT_EQ(NSFDbUpdateUnread(db, table), 0);
    EXPECT_EQ(IDTableCopy(table, &before), 0);
    EXPECT_EQ(IDInsert(table, id, nullptr), 0);
    const STATUS status = setUnread(db, user, before, table);
    EXPECT_EQ(IDDestroyTable(before), 0);
    EXPECT_EQ(IDDestroyTable(table), 0);
    return status;
}

TEST(UnreadMarks, AreKeptForEachUser) {
    const TestServer server;
    const OpenDb db("names.nsf");
    const auto unread = [&](const std::string& user) {
        return dominoSim({"unread", server.root(), "names.nsf", "--user", user}).output;
    };
    EXPECT_EQ(unreadTable(db.handle, "CN=Ann", 0), 0U);
    const auto before = dominoSimJson({"show", server.root(), "names.nsf"});
    ASSERT_EQ(markUnread(db.handle, "CN=Ann", kFirstNote), 0);
    ASSERT_EQ(markUnread(db.handle, "CN=Ann", kSecondNote), 0);
    ASSERT_EQ(markUnread(db.handle, "CN=Bob", kSecondNote), 0);
    const auto after = dominoSimJson({"show", server.root(), "names.nsf"});
    EXPECT_EQ(unread("CN=Ann"), "2294\n2298\n");
    EXPECT_EQ(unread("CN=Bob"), "2298\n");
    EXPECT_EQ(unread("CN=Eve"), "");
    EXPECT_EQ(after["lastRecord"].get<int>(), before["lastRecord"].get<int>() + 3) << "logged";
    EXPECT_NE(after["digest"], before["digest"]);

    ASSERT_EQ(markUnread(db.handle, "CN=Ann", kFirstNote), 0);
    EXPECT_EQ(dominoSimJson({"show", server.root(), "names.nsf"}), after) << "no difference";
    EXPECT_EQ(NotesSimOutstanding(NOTES_SIM_ID_TABLES), 0U);
}

TEST(UnreadMarks, AreSetByTheDifferenceOfTwoTables) {
    const TestServer server;
    const OpenDb db("names.nsf");
    ASSERT_EQ(markUnread(db.handle, "CN=Ann", kFirstNote), 0);
    const DHANDLE before = unreadTable(db.handle, "CN=Ann", 0);
    DHANDLE none = 0;
    ASSERT_EQ(markUnread(db.handle, "CN=Zoe", kFirstNote), 0);
    ASSERT_EQ(IDTableCopy(unreadTable(db.handle, "CN=Nobody"), &none), 0);
    ASSERT_EQ(markUnread(db.handle, "CN=Ann", kSecondNote), 0) << "meanwhile, by somebody else";
    ASSERT_EQ(setUnread(db.handle, "CN=Ann", before, none), 0);
    const DHANDLE present = unreadTable(db.handle, "CN=Ann", 0);
    EXPECT_EQ(idsOf(present), std::vector<NOTEID>{kSecondNote});

    // A note must be there before it can be unread; one that goes leaves the table at the update.
    EXPECT_EQ(markUnread(db.handle, "CN=Ann", 99999), kNoSuchNote);
    ASSERT_EQ(NSFNoteDelete(db.handle, kSecondNote, 0), 0);
    EXPECT_EQ(IDEntries(present), 1U);
    EXPECT_EQ(NSFDbUpdateUnread(db.handle, present), 0);
    EXPECT_EQ(IDEntries(present), 0U);
    EXPECT_EQ(dominoSim({"unread", server.root(), "names.nsf", "--user", "CN=Ann"}).output, "");
}

TEST(UserName, IsTheOneOfTheIdFile) {
    const TestServer server;
    char name[257] = {};
    ASSERT_EQ(SECKFMGetUserName(name), 0);
    EXPECT_STREQ(name, "CN=Admin/O=Simulated");
    for (const std::string& user : {std::string(300, 'n'), std::string("CN=J\xC3\xBCrgen")}) {
        std::ofstream(server.root() + "/notes.ini", std::ios::app)
            << "SimUserName=" << user << '\n';
        ASSERT_EQ(server.start(), 0);
        ASSERT_EQ(SECKFMGetUserName(name), 0);
        char native[257] = {};
        OSTranslate(1, name, 0xFFFF, native, sizeof native);
        EXPECT_EQ(native, user.substr(0, 256));
    }
    {
        const OpenDb db("names.nsf");
        ASSERT_EQ(markUnread(db.handle, name, kSecondNote), 0);
    }
    EXPECT_EQ(dominoSim({"unread", server.root(), "names.nsf"}).output, "2298\n");
    fs::remove(server.data("user.id"));
    EXPECT_EQ(SECKFMGetUserName(name), 259);
}

} // namespace
} // namespace simulator_tests
