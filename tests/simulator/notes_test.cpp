// Single notes: copying and deleting them, and unread marks.
#include "tests/simulator/support.h"

namespace simulator_tests {
namespace {

constexpr NOTEID kFirstNote = 2294;
constexpr NOTEID kSecondNote = 2298;
constexpr NOTEID kMovedNote = 77777;
constexpr STATUS kNoSuchNote = 16143;
constexpr STATUS kNoteExists = 16147;

// A database and a copy of it from before, as a document restore has them.
class Notes : public ::testing::Test {
  protected:
    Notes() { fs::copy_file(server.data("names.nsf"), file); }

    STATUS copy(NOTEID id) const {
        const OpenDb backup(file);
        return NSFDbCopyNote(backup.handle, nullptr, nullptr, id, db.handle, nullptr, nullptr,
                             nullptr, nullptr);
    }
    nlohmann::json shown() const { return server.show("names.nsf"); }

    // A user's unread table, made when there is none.
    DHANDLE unreadTable(std::string user) const {
        DHANDLE table = 0;
        EXPECT_EQ(NSFDbGetUnreadNoteTable(db.handle, user.data(), static_cast<WORD>(user.size()), 1,
                                          &table),
                  0);
        return table;
    }
    STATUS setUnread(std::string user, DHANDLE before, DHANDLE after) const {
        return NSFDbSetUnreadNoteTable(db.handle, user.data(), static_cast<WORD>(user.size()), 0,
                                       before, after);
    }
    // Marks one note unread, as a document restore does.
    STATUS markUnread(const std::string& user, NOTEID id) const {
        const DHANDLE table = unreadTable(user);
        const DHANDLE before = unreadTable(user);
        EXPECT_EQ(IDInsert(table, id, nullptr), 0);
        return setUnread(user, before, table);
    }
    std::string unread(const std::string& user) const {
        return server.command("unread", "names.nsf --user " + user);
    }

    TestServer server;
    std::string file = server.folder.file("names.nsf");
    OpenDb db{"names.nsf"};
};

// A note that is not there, one that is, one whose id another note has got meanwhile, and one that
// is there under another id.
TEST_F(Notes, ACopyThatWouldOverwriteOrDoubleANoteIsRefusedAndAnotherIsLogged) {
    changeFile(file, "UPDATE notes SET note_id=77777 WHERE note_id=2298");
    const auto untouched = shown();
    EXPECT_EQ(copy(kFirstNote), kNoteExists);
    EXPECT_EQ(copy(kMovedNote), kNoteExists);
    for (const NOTEID id : {kSecondNote, NOTEID{99999}, NOTEID{0}, kFirstNote | 0x80000000U}) {
        EXPECT_EQ(copy(id), kNoSuchNote) << id;
    }
    EXPECT_EQ(NSFNoteDelete(db.handle, 99999, 0), kNoSuchNote);
    EXPECT_EQ(shown(), untouched);
    ASSERT_EQ(NSFNoteDelete(db.handle, kFirstNote, 0), 0);
    EXPECT_EQ(shown()["stubs"], 1);
    ASSERT_EQ(copy(kFirstNote), 0);
    EXPECT_EQ(shown()["stubs"], 0);
    EXPECT_EQ(shown()["lastRecord"].get<int>(), untouched["lastRecord"].get<int>() + 2);
    ASSERT_EQ(NSFNoteDelete(db.handle, kFirstNote, 0), 0);
    server.command("put", "names.nsf --id " + std::to_string(kFirstNote));
    EXPECT_EQ(copy(kFirstNote), kNoteExists);
}

TEST_F(Notes, UnreadMarksAreKeptForEachUserAndSetByTheDifferenceOfTwoTables) {
    const auto before = shown();
    ASSERT_EQ(markUnread("CN=Ann", kFirstNote), 0);
    ASSERT_EQ(markUnread("CN=Ann", kSecondNote), 0);
    ASSERT_EQ(markUnread("CN=Bob", kSecondNote), 0);
    EXPECT_EQ(unread("CN=Ann"), "2294\n2298\n");
    EXPECT_EQ(shown()["lastRecord"].get<int>(), before["lastRecord"].get<int>() + 3) << "logged";
    // What others mark meanwhile stays.
    const DHANDLE ofAnn = unreadTable("CN=Ann");
    ASSERT_EQ(markUnread("CN=Ann", 2302), 0);
    ASSERT_EQ(setUnread("CN=Ann", ofAnn, unreadTable("CN=Bob")), 0);
    EXPECT_EQ(unread("CN=Ann"), "2298\n2302\n");
    // A note must be there before it can be unread; one that goes leaves the table at the update.
    EXPECT_EQ(markUnread("CN=Ann", 99999), kNoSuchNote);
    ASSERT_EQ(NSFNoteDelete(db.handle, kSecondNote, 0), 0);
    EXPECT_EQ(NSFDbUpdateUnread(db.handle, ofAnn), 0);
    EXPECT_EQ(IDIsPresent(ofAnn, kSecondNote), 0);
    EXPECT_EQ(IDIsPresent(ofAnn, kFirstNote), 1);
}

} // namespace
} // namespace simulator_tests
