// Single notes: copying and deleting them.
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

} // namespace
} // namespace simulator_tests
