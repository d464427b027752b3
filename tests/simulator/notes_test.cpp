// Single notes: copying, deleting, unread marks, and the user's name.
#include "support.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <cstring>
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

/// What a database says of a note, past the C API, which shows no note: "" when it is not there.
std::string noteOf(const fs::path& file, NOTEID id) {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    sqlite3_stmt* read = nullptr;
    sqlite3_prepare_v2(database,
                       "SELECT hex(unid)||class||subject||hex(body) FROM notes WHERE note_id=?1",
                       -1, &read, nullptr);
    sqlite3_bind_int64(read, 1, id);
    std::string text;
    if (sqlite3_step(read) == SQLITE_ROW) {
        text = reinterpret_cast<const char*>(sqlite3_column_text(read, 0));
    }
    sqlite3_finalize(read);
    sqlite3_close(database);
    return text;
}

/// All documents by the wildcard time; none for status 572.
std::vector<NOTEID> allDocuments(DBHANDLE db) {
    TIMEDATE wildcard = {};
    TIMEDATE until = {};
    DHANDLE table = 0;
    TimeConstant(2, &wildcard);
    const STATUS status = NSFDbGetModifiedNoteTable(db, 1, wildcard, &until, &table);
    if (status == 572) {
        return {};
    }
    EXPECT_EQ(status, 0);
    std::vector<NOTEID> ids = idsOf(table);
    EXPECT_EQ(IDDestroyTable(table), 0);
    return ids;
}

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

TEST_F(DocumentRestore, BringsADeletedNoteBackAsItWasAndLogsIt) {
    const std::string before = noteOf(server.data("names.nsf"), kFirstNote);
    ASSERT_FALSE(before.empty());
    ASSERT_EQ(NSFNoteDelete(original->handle, kFirstNote, 0), 0);
    EXPECT_EQ(noteOf(server.data("names.nsf"), kFirstNote), "");
    EXPECT_EQ(allDocuments(original->handle).back(), kFirstNote | 0x80000000U);
    const auto deleted = shown();
    EXPECT_EQ(deleted["stubs"], 1);

    DBID ids[2] = {};
    ASSERT_EQ(NSFDbIDGet(backup->handle, &ids[0]), 0);
    ASSERT_EQ(NSFDbIDGet(original->handle, &ids[1]), 0);
    NOTEID id = 0;
    WORD noteClass = 0;
    ASSERT_EQ(NSFDbCopyNote(backup->handle, &ids[0], nullptr, kFirstNote, original->handle, &ids[1],
                            nullptr, &id, &noteClass),
              0);
    EXPECT_EQ(id, kFirstNote);
    EXPECT_EQ(noteClass, 1);
    EXPECT_EQ(noteOf(server.data("names.nsf"), kFirstNote), before);
    EXPECT_EQ(allDocuments(original->handle).front(), kFirstNote);
    const auto restored = shown();
    EXPECT_EQ(restored["stubs"], 0);
    EXPECT_EQ(restored["commit"].get<int>(), deleted["commit"].get<int>() + 1);
    EXPECT_EQ(restored["lastRecord"].get<int>(), deleted["lastRecord"].get<int>() + 1);
}

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
TEST_F(DocumentRestore, CopyThatWouldOverwriteOrDoubleANoteIsRefused) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(backupFile.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, "UPDATE notes SET note_id=77777 WHERE note_id=2298", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    ASSERT_EQ(NSFNoteDelete(original->handle, kFirstNote, 0), 0);
    dominoSim({"put", server.root(), "names.nsf", "--id", std::to_string(kFirstNote)});
    const auto before = shown();
    EXPECT_EQ(copy(kFirstNote), kNoteExists);
    EXPECT_EQ(copy(77777), kNoteExists);
    EXPECT_EQ(shown(), before);
}

TEST_F(DocumentRestore, CopyIntoAnotherDatabaseKeepsIdsApart) {
    dominoSim({"create", server.root(), "empty.nsf", "--notes", "0"});
    const OpenDb empty("empty.nsf");
    EXPECT_TRUE(allDocuments(empty.handle).empty()) << "572";
    ASSERT_EQ(NSFDbCopyNote(backup->handle, nullptr, nullptr, kSecondNote, empty.handle, nullptr,
                            nullptr, nullptr, nullptr),
              0);
    EXPECT_EQ(noteOf(server.data("empty.nsf"), kSecondNote),
              noteOf(server.data("names.nsf"), kSecondNote));
    const std::string next = dominoSim({"put", server.root(), "empty.nsf"}).output;
    EXPECT_GT(std::stoul(next), kSecondNote) << "an id that was copied is not given out again";
    ASSERT_EQ(NSFNoteDelete(empty.handle, kSecondNote, 0), 0);
    ASSERT_EQ(NSFNoteDelete(empty.handle, static_cast<NOTEID>(std::stoul(next)), 0), 0);
    EXPECT_EQ(allDocuments(empty.handle),
              (std::vector<NOTEID>{kSecondNote | 0x80000000U,
                                   static_cast<NOTEID>(std::stoul(next)) | 0x80000000U}))
        << "stubs count as notes";
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
    EXPECT_NE(setUnread(db.handle, "", none, present), 0);
    EXPECT_NE(setUnread(db.handle, "CN=Ann", none, 0), 0);
    EXPECT_NE(setUnread(0, "CN=Ann", none, present), 0);
}

TEST(UserName, IsTheOneOfTheIdFile) {
    const TestServer server;
    char name[257] = {};
    const auto named = [&](const std::string& user) {
        std::ofstream(server.root() + "/notes.ini", std::ios::app)
            << "SimUserName=" << user << '\n';
        EXPECT_EQ(server.start(), 0);
        return SECKFMGetUserName(name);
    };
    ASSERT_EQ(SECKFMGetUserName(name), 0);
    EXPECT_STREQ(name, "CN=Admin/O=Simulated");
    ASSERT_EQ(named("CN=J\xC3\xBCrgen/O=Acme"), 0);
    char native[257] = {};
    OSTranslate(1, name, 0xFFFF, native, sizeof native);
    EXPECT_STREQ(native, "CN=J\xC3\xBCrgen/O=Acme");
    {
        const OpenDb db("names.nsf");
        ASSERT_EQ(markUnread(db.handle, name, kSecondNote), 0);
    }
    EXPECT_EQ(dominoSim({"unread", server.root(), "names.nsf"}).output, "2298\n");
    ASSERT_EQ(named(std::string(300, 'n')), 0);
    EXPECT_EQ(std::strlen(name), 256U);
    fs::remove(server.data("user.id"));
    EXPECT_EQ(SECKFMGetUserName(name), 259);
    EXPECT_NE(SECKFMGetUserName(nullptr), 0);
}

} // namespace
} // namespace simulator_tests
