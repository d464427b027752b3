// Single documents from a restored copy back into the live database: the exact calls.
#include "qrt_lotus_notes/qrtln_n/document_restore.h"

#include "tests/qrtln_n/notes_floor_test.h"

namespace {

constexpr STATUS kNothing = 0x4000 | 572; // the flag makes no other error of it
constexpr NOTEID kDeletedBit = 0x80000000;

// The original is handle 1 with its table 10, the backup handle 2 with table 20.
const Steps opened = {{"NSFDbOpen L:/live/a.nsf", {.numbers = {1}}},
                      {"NSFDbOpen L:/copy/a.nsf", {.numbers = {2}}}};
const Steps begun =
    opened + Steps{{"ConvertTextToTIMEDATE defaults 01/15/2024 10:30", {.numbers = {55, 66}}},
                   {"NSFDbIDGet 1"},
                   {"NSFDbIDGet 2"},
                   {"NSFDbGetModifiedNoteTable 1 1 55 66", {.numbers = {10}}},
                   {"IDDestroyTable 10"}};
const Step documentsOfBackup = {"NSFDbGetModifiedNoteTable 2 1 4294967295 0", {.numbers = {20}}};
const Step destroyed = {"IDDestroyTable 20"};
const Steps closed = {{"NSFDbClose 1"}, {"NSFDbClose 2"}};
// Marking note 4 as unread.
const Steps marked = {{"SECKFMGetUserName", {.text = "CN=Admin/O=X"}},
                      {"NSFDbGetUnreadNoteTable 1 CN=Admin/O=X 12 1", {.numbers = {30}}},
                      {"NSFDbUpdateUnread 1 30"},
                      {"IDTableCopy 30", {.numbers = {31}}},
                      {"IDInsert 30 4"},
                      {"NSFDbSetUnreadNoteTable 1 CN=Admin/O=X 12 0 31 30"},
                      {"NSFDbUpdateUnread 1 30"},
                      {"IDDestroyTable 31"},
                      {"IDDestroyTable 30"}};

class DocumentRestoreTest : public NotesFloorTest {
  protected:
    DocumentRestoreTest() {
        copyText(g_sQRTLN_Global.szPointInTime, "202401151030");
        set(g_sQRTLN_Global.szNotesDataDirectory, "@");
        setQueue(g_sQRTLN_Global.lhNotesFileList, "4");
    }

    static int restore(bool deleted, const char* live = "/live/a.nsf",
                       const char* copy = "/copy/a.nsf") {
        const char* const since = "01/15/2024 10:30";
        return deleted
                   ? RestoreDeletedDocuments(live, copy, since)
                   : RestoreChangedDocuments(live, copy, g_sQRTLN_Global.lhNotesFileList, since);
    }
};

TEST_F(DocumentRestoreTest, DeletedDocumentsThatTheBackupHasAreCopiedAndMarkedUnread) {
    // 8 was deleted and is listed as present, too; 12 is not in the backup; 16 was only changed.
    script.tables[10] = {kDeletedBit | 4, kDeletedBit | 8, 8, kDeletedBit | 12, 16};
    script.tables[20] = {16, 8, 4};
    script.play(begun + Steps{documentsOfBackup, {"NSFDbCopyNote 2 4 1"}} + marked +
                Steps{destroyed} + closed);
    EXPECT_EQ(DeletedDocumentsRecovery("/copy/a.nsf", "/live/a.nsf"), 3000);
    EXPECT_EQ(takeErrorText(), "");
    script.expectPlayed();
    // Unread already: nothing is written.
    script.tables[30] = {4};
    script.play(failingAt(3, 0, marked) + Steps(marked.end() - 3, marked.end()));
    EXPECT_EQ(setNotesAsUnread(1, 4), 3000);
    // A name that fills its buffer is passed whole.
    const std::string name(257, 'n');
    script.play({{"SECKFMGetUserName", {.text = name}},
                 {"NSFDbGetUnreadNoteTable 1 " + name + " 257 1", {.status = 9}}});
    EXPECT_EQ(setNotesAsUnread(1, 4), 1000);
}

// A changed document stays deleted when its copy fails; all are back when only a close fails.
TEST_F(DocumentRestoreTest, AFailureReleasesEverything) {
    const Steps released = Steps{destroyed} + closed;
    const Steps ofDeleted =
        begun + Steps{documentsOfBackup, {"NSFDbCopyNote 2 4 1"}} + marked + released;
    const Steps ofChanged =
        begun + Steps{documentsOfBackup, {"NSFNoteDelete 1 4 0"}, {"NSFDbCopyNote 2 4 1"}} +
        released;
    const auto marks = [](long from) { return Steps(marked.begin() + from, marked.end()); };
    // The text of one function in both: readers of traces know it.
    const char* const ofOther =
        "RestoreDeletedDocuments(): NSFDbClose() call for backup database FAILED: Notes text 12.";
    const struct {
        bool deleted;
        std::size_t step; // that fails, counted from 0
        STATUS status;
        Steps after;
        const char* said = "";
        bool fails = true; // with the text of the status
    } rows[] = {
        {true, 0, 259, {}, "NSFDbOpen() failure on file: U:L:/live/a.nsf"},
        {true, 2, 9, closed},
        {true, 5, 9, closed},
        {true, 7, 9, closed},
        {true, 7, kNothing, closed, "", false},
        {true, 8, 9, released},
        // Unread marks are not worth a failure; the table goes back without the note, or not at
        // all.
        {true, 9, 9, released, "Could not get user name.", false},
        {true, 10, 9, released, "Could not get unread notes table.", false},
        {true, 11, 9, marks(8) + released, "Could not update unread notes table.", false},
        {true, 12, 9, marks(8) + released, "Could not copy unread notes table.", false},
        {true, 13, 9, marks(5) + released, "Insert note into unread list unsuccessful.", false},
        {true, 14, 9, marks(6) + released, "Could not set unread note table.", false},
        {true, 15, 9, marks(7) + released, "Could not update unread notes table.", false},
        {true, 19, 11, {closed[1]}},
        {true, 20, 12, {}, ofOther},
        {false, 5, kNothing, closed, "", false},
        {false, 8, 9, released, "NSFNoteDelete() call failed."},
        {false, 9, 9, released},
        {false, 12, 12, {}, ofOther},
    };
    long unmarked = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.deleted) + " " + std::to_string(row.step));
        messages.clear();
        script.tables = {{10, {row.deleted ? kDeletedBit | 4 : 4}}, {20, {4}}};
        script.play(failingAt(row.step, row.status, row.deleted ? ofDeleted : ofChanged) +
                    row.after);
        EXPECT_EQ(restore(row.deleted), row.fails ? 1000 : 3000);
        EXPECT_TRUE(said(row.said));
        EXPECT_EQ(takeErrorText(), row.fails ? "Notes text " + std::to_string(row.status) : "");
        unmarked += with("Setting note as unread failed.", messages.traces());
        script.expectPlayed();
    }
    EXPECT_EQ(unmarked, 5);
}

TEST_F(DocumentRestoreTest, DatabasesGoByTheirFileNamesAlone) {
    EXPECT_EQ(restore(true, "/live/a.nsf", "/copy/b.nsf"), 1000);
    EXPECT_EQ(restore(false, "/live/a.nsf", "/copy/A.nsf"), 1000);
    EXPECT_EQ(takeErrorText(), "") << "only traced";
    EXPECT_EQ(restore(true, ("/" + std::string(1100, 'x') + "/a.nsf").c_str()), 1000);
    EXPECT_THAT(takeErrorText(), testing::HasSubstr("RestoreDeletedDocuments(): File full path"));
}

// What changed and is on the list; when nothing is both, the backup is not read.
TEST_F(DocumentRestoreTest, ListLinesLoseOneCharacterAndTheListIsDeletedWhateverTheResult) {
    const struct {
        std::string list;
        std::vector<int> restored; // in the backup's order
        STATUS status = 0;         // of the first call
    } rows[] = {
        {"4\n\n12\n", {12, 4}},
        {"12\n16\n20\n0004\n-2147483632\n", {12}}, // 16 was deleted, 20 has not changed
        {"4\r\n12", {12}},                         // the first keeps its carriage return
        {" 4\n012\n", {}},
        {std::string(1027, '1') + "12\n", {12}}, // a line ends after 1027 characters
        {"4\n", {}, 9},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.list);
        const std::string copy = folder.write("copy/a.nsf");
        folder.write("noteids_list.txt", row.list);
        script.tables = {{10, {4, 12, kDeletedBit | 16}}, {20, {12, 4, 16, 20}}};
        Steps steps = begun;
        steps[1].call = "NSFDbOpen L:" + copy;
        if (!row.restored.empty()) {
            steps.push_back(documentsOfBackup);
            for (const int id : row.restored) {
                steps.push_back({"NSFNoteDelete 1 " + std::to_string(id) + " 0"});
                steps.push_back({"NSFDbCopyNote 2 " + std::to_string(id) + " 1"});
            }
            steps.push_back(destroyed);
        }
        script.play(row.status == 0 ? steps + closed : failingAt(0, row.status, steps));
        EXPECT_EQ(ChangedDocumentsRecovery(copy.c_str(), "/live/a.nsf"),
                  row.status == 0 ? 3000 : 1000);
        script.expectPlayed();
        EXPECT_FALSE(folder.exists("copy/a.nsf"));
        EXPECT_FALSE(folder.exists("noteids_list.txt"));
        takeErrorText();
    }
    EXPECT_TRUE(said("Deleting note (12) from original"));
    EXPECT_TRUE(said("Copying note (4) to original"));
    // The live database is never taken for its copy.
    folder.write("noteids_list.txt", "4\n");
    const std::string live = folder.write("a.nsf", "mail");
    EXPECT_EQ(ChangedDocumentsRecovery(full("@//a.nsf").c_str(), live.c_str()), 1000);
    EXPECT_EQ(folder.read("a.nsf"), "mail");
    EXPECT_THAT(takeErrorText(), testing::EndsWith("is the live database itself"));
    // Without a list that can be read nothing is touched.
    std::filesystem::remove(folder.file("noteids_list.txt"));
    folder.makeDirectory("noteids_list.txt");
    const std::string copy = folder.write("copy/a.nsf");
    EXPECT_EQ(ChangedDocumentsRecovery(copy.c_str(), live.c_str()), 1000);
    EXPECT_TRUE(folder.exists("copy/a.nsf"));
    EXPECT_TRUE(said("Could not open NoteID list file"));
}

} // namespace
