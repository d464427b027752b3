// Single documents from a restored copy back into the live database, and taking databases offline
// and online: the exact calls.
#include "qrt_lotus_notes/qrtln_n/document_restore.h"

#include <chrono>

#include <gmock/gmock.h>

#include "common/bounded_text.h"
#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"
#include "qrt_lotus_notes/qrtln_n/database_recovery.h"
#include "tests/qrtln_n/notes_floor_test.h"

namespace {

using testing::Contains;
using testing::Not;

constexpr STATUS kNothing = 0x4000 | 572; // the flag makes no other error of it
constexpr NOTEID kDeletedBit = 0x80000000;

// The original is handle 1 with its table 10, the backup handle 2 with table 20. The reply of a
// table is a status or, with 0, its handle.
Step documents(DBHANDLE handle, const std::string& since, STATUS status = 0) {
    return {"NSFDbGetModifiedNoteTable " + std::to_string(handle) + " 1 " + since,
            {.status = status, .numbers = {handle * 10}}};
}
Step documentsOfOriginal(STATUS status = 0) {
    return documents(1, "55 66", status);
}
Step documentsOfBackup(STATUS status = 0) {
    return documents(2, "4294967295 0", status);
}
Step destroyed(DHANDLE table) {
    return {"IDDestroyTable " + std::to_string(table)};
}

class DocumentRestoreTest : public NotesFloorTest {
  protected:
    DocumentRestoreTest() {
        copyText(g_sQRTLN_Global.szPointInTime, "202401151030");
        copyText(g_sQRTLN_Global.szNotesDataDirectory, folder.path().c_str());
        noteIds = CreateFIFOList();
    }
    ~DocumentRestoreTest() override { DestroyFIFOList(noteIds); }
    DocumentRestoreTest(const DocumentRestoreTest&) = delete;
    DocumentRestoreTest& operator=(const DocumentRestoreTest&) = delete;

    const std::vector<Step> opened = {{"NSFDbOpen L:/live/a.nsf", {.numbers = {1}}},
                                      {"NSFDbOpen L:/copy/a.nsf", {.numbers = {2}}}};
    const std::vector<Step> begun =
        opened + std::vector<Step>{
                     {"ConvertTextToTIMEDATE defaults 01/15/2024 10:30", {.numbers = {55, 66}}},
                     {"NSFDbIDGet 1"},
                     {"NSFDbIDGet 2"}};
    const std::vector<Step> closed = {{"NSFDbClose 1"}, {"NSFDbClose 2"}};
    // Marking note 4 as unread.
    const std::vector<Step> user = {{"SECKFMGetUserName", {.text = "CN=Admin/O=X"}}};
    const Step unreadOfUser = {"NSFDbGetUnreadNoteTable 1 CN=Admin/O=X 1", {.numbers = {30}}};
    const Step updated = {"NSFDbUpdateUnread 1 30"};
    const Step copied = {"IDTableCopy 30", {.numbers = {31}}};
    const Step written = {"NSFDbSetUnreadNoteTable 1 CN=Admin/O=X 0 31 30"};
    const std::vector<Step> marked =
        user + std::vector<Step>{unreadOfUser, updated, copied,        {"IDInsert 30 4"},
                                 written,      updated, destroyed(31), destroyed(30)};

    static int restoreDeleted() {
        return RestoreDeletedDocuments("/live/a.nsf", "/copy/a.nsf", "01/15/2024 10:30");
    }
    int restoreChanged() const {
        return RestoreChangedDocuments("/live/a.nsf", "/copy/a.nsf", noteIds, "01/15/2024 10:30");
    }
    void list(const std::string& id) const {
        PushFIFOItemLN(noteIds, id.c_str(), static_cast<unsigned>(id.size() + 1),
                       DB_BACKUP_FILE_TYPE_DB);
    }

    LIST_INFO* noteIds = nullptr;
};

TEST_F(DocumentRestoreTest, DeletedDocumentsThatTheBackupHasAreCopiedAndMarkedUnread) {
    // 8 was deleted and is listed as present, too; 12 is not in the backup; 16 was only changed.
    script.tables[10] = {kDeletedBit | 4, kDeletedBit | 8, 8, kDeletedBit | 12, 16};
    script.tables[20] = {16, 8, 4};
    script.play(
        begun +
        std::vector<Step>{
            documentsOfOriginal(), destroyed(10), documentsOfBackup(), {"NSFDbCopyNote 2 4 1"}} +
        marked + std::vector<Step>{destroyed(20)} + closed);
    EXPECT_EQ(DeletedDocumentsRecovery("/copy/a.nsf", "/live/a.nsf"), 3000);
    EXPECT_TRUE(messages.hasTrace("Copying deleted documents from U:L:/copy/a.nsf to "
                                  "U:L:/live/a.nsf since date 01/15/2024 10:30"));
    EXPECT_TRUE(
        messages.hasTrace("RestoreDeletedDocuments(): Copying note (4) to original database ..."));
    EXPECT_TRUE(messages.hasTrace("setNotesAsUnread(): Setting note (4) as unread."));
    EXPECT_TRUE(messages.hasTrace("Deleted documents recovery succeed"));
    EXPECT_EQ(takeErrorText(), "");
}

TEST_F(DocumentRestoreTest, ChangedDocumentsOnTheListAreReplacedInTheBackupsOrder) {
    // Changed: 4, 8, 12 and the deleted 16; the list also has what did not change.
    script.tables[10] = {4, 8, 12, kDeletedBit | 16};
    script.tables[20] = {12, 4, 16, 20};
    for (const char* id : {"4", "12", "16", "20", "0008", "8\r", "", "-2147483632"}) {
        list(id);
    }
    script.play(begun +
                std::vector<Step>{documentsOfOriginal(),
                                  destroyed(10),
                                  documentsOfBackup(),
                                  {"NSFNoteDelete 1 12 0"},
                                  {"NSFDbCopyNote 2 12 1"},
                                  {"NSFNoteDelete 1 4 0"},
                                  {"NSFDbCopyNote 2 4 1"},
                                  destroyed(20)} +
                closed);
    EXPECT_EQ(restoreChanged(), 3000);
    EXPECT_TRUE(messages.hasTrace(
        "RestoreChangedDocuments(): Deleting note (12) from original database ..."));
    EXPECT_TRUE(
        messages.hasTrace("RestoreChangedDocuments(): Copying note (4) to original database ..."));
}

// Each call fails once; what was opened is closed, and the trace and the error say what failed.
TEST_F(DocumentRestoreTest, EachFailureReleasesEverythingAndSaysWhat) {
    struct Row {
        std::size_t step; // of `good`, counted from 0
        STATUS status;
        std::vector<Step> after;
        std::string trace; // "@" stands for the function's name
        int result = 1000;
        bool error = true; // the status has its text in the error
    };
    const std::vector<Row> common = {
        {0, 259, {}, "Notes API NSFDbOpen() failure on file: U:L:/live/a.nsf"},
        {1, 259, {closed[0]}, "Notes API NSFDbOpen() failure on file: U:L:/copy/a.nsf"},
        {2, 9, closed, "@(): Error converting time value 01/15/2024 10:30."},
        {5, 9, closed, "@(): NSFDbGetModifiedNoteTable() call for original database failed."},
        {7, 9, closed, "@(): NSFDbGetModifiedNoteTable() call for backup database failed."},
        {7, kNothing, closed, "@(): There are no documents in the backup database.", 3000, false},
    };
    const std::string nothing =
        "@(): There are no documents in the original database which has been changed";
    const std::string closing = "NSFDbClose() call for ";
    const std::vector<Step> released = std::vector<Step>{destroyed(20)} + closed;
    const std::vector<Row> ofDeleted = {
        {5, kNothing, closed, nothing + " (deleted) since 01/15/2024 10:30.", 3000, false},
        {8, 9, released, "@(): NSFDbCopyNote() call failed."},
        // Unread marks are not worth a failure.
        {9, 9, released, "@(): Setting note as unread failed.", 3000, false},
        {19, 11, {closed[1]}, "@(): " + closing + "original database FAILED: Notes text 11."},
        {20, 12, {}, "@(): " + closing + "backup database FAILED: Notes text 12."},
    };
    const std::vector<Row> ofChanged = {
        {5, kNothing, closed, nothing + " since 01/15/2024 10:30.", 3000, false},
        {8, 9, released, "@(): NSFNoteDelete() call failed."},
        {9, 9, released, "@(): NSFDbCopyNote() call failed."},
        {11, 11, {closed[1]}, "@(): " + closing + "original database FAILED: Notes text 11."},
        // The text of the other function: readers of traces know it.
        {12,
         12,
         {},
         "RestoreDeletedDocuments(): " + closing + "backup database FAILED: Notes text 12."},
    };
    list("4");
    for (const bool deleted : {true, false}) {
        const std::vector<Step> restoring =
            deleted ? std::vector<Step>{{"NSFDbCopyNote 2 4 1"}} + marked
                    : std::vector<Step>{{"NSFNoteDelete 1 4 0"}, {"NSFDbCopyNote 2 4 1"}};
        const std::vector<Step> good =
            begun + std::vector<Step>{documentsOfOriginal(), destroyed(10), documentsOfBackup()} +
            restoring + released;
        std::vector<Row> rows = common;
        rows.insert(rows.end(), deleted ? ofDeleted.begin() : ofChanged.begin(),
                    deleted ? ofDeleted.end() : ofChanged.end());
        for (const Row& row : rows) {
            std::string trace = row.trace;
            if (trace.starts_with('@')) {
                trace.replace(0, 1,
                              deleted ? "RestoreDeletedDocuments" : "RestoreChangedDocuments");
            }
            SCOPED_TRACE(trace);
            messages.clear();
            script.tables = {{10, {deleted ? kDeletedBit | 4 : 4}}, {20, {4}}};
            std::vector<Step> steps(good.begin(), good.begin() + static_cast<long>(row.step + 1));
            steps.back().answer.status = row.status;
            script.play(steps + row.after);
            EXPECT_EQ(deleted ? restoreDeleted() : restoreChanged(), row.result);
            EXPECT_TRUE(messages.hasTrace(trace));
            EXPECT_EQ(takeErrorText(), row.error ? "Notes text " + std::to_string(row.status) : "");
            ASSERT_TRUE(script.done());
        }
    }
}

TEST_F(DocumentRestoreTest, NothingIsReadFromTheBackupWhenNoListedDocumentChanged) {
    list("8");
    script.tables[10] = {4, kDeletedBit | 8}; // a deleted one is no changed one
    script.play(begun + std::vector<Step>{documentsOfOriginal(), destroyed(10)} + closed);
    EXPECT_EQ(restoreChanged(), 3000);
    EXPECT_TRUE(messages.hasTrace("RestoreChangedDocuments(): Selected LN documents has not been "
                                  "changed in specified period."));
}

TEST_F(DocumentRestoreTest, DatabasesGoByTheirFileNamesAlone) {
    EXPECT_EQ(RestoreDeletedDocuments("/live/a.nsf", "/copy/b.nsf", "x"), 1000);
    EXPECT_TRUE(messages.hasTrace(
        "RestoreDeletedDocuments(): Error: the original and backup databases are different."));
    EXPECT_EQ(RestoreChangedDocuments("/live/a.nsf", "/copy/A.nsf", noteIds, "x"), 1000);
    EXPECT_TRUE(messages.hasTrace(
        "RestoreChangedDocuments(): Error: the original and backup databases are different."));
    EXPECT_EQ(takeErrorText(), "") << "only traced";
    const std::string longPath = "/" + std::string(1100, 'x') + "/a.nsf";
    EXPECT_EQ(RestoreDeletedDocuments(longPath.c_str(), "/copy/a.nsf", "x"), 1000);
    EXPECT_THAT(takeErrorText(), testing::HasSubstr("RestoreDeletedDocuments(): File full path"));
}

TEST_F(DocumentRestoreTest, UnreadMarksFailAtEachStepWithItsOwnTrace) {
    const std::vector<Step> end = {updated, destroyed(31), destroyed(30)};
    const struct {
        std::size_t step; // of `marked`
        std::vector<Step> after;
        int result;
        std::string trace;
    } rows[] = {
        {0, {}, 1000, "setNotesAsUnread(): Could not get user name."},
        {1, {}, 1000, "setNotesAsUnread(): Could not get unread notes table."},
        {2, {destroyed(30)}, 1000, "setNotesAsUnread(): Could not update unread notes table."},
        {3, {destroyed(30)}, 1000, "setNotesAsUnread(): Could not copy unread notes table."},
        // Not fatal: the table goes back without the note, or not at all.
        {4, std::vector<Step>{written} + end, 3000,
         "setNotesAsUnread(): Insert note into unread list unsuccessful."},
        {5, end, 3000, "setNotesAsUnread(): Could not set unread note table."},
        {6,
         {destroyed(31), destroyed(30)},
         1000,
         "setNotesAsUnread(): Could not update unread notes table."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.trace);
        messages.clear();
        script.tables.clear();
        std::vector<Step> steps(marked.begin(), marked.begin() + static_cast<long>(row.step + 1));
        steps.back().answer.status = 9;
        script.play(steps + row.after);
        EXPECT_EQ(setNotesAsUnread(1, 4), row.result);
        EXPECT_TRUE(messages.hasTrace(row.trace));
        EXPECT_TRUE(messages.logs().empty());
        ASSERT_TRUE(script.done());
    }
    // Unread already: nothing is written.
    script.tables[30] = {4};
    script.play(user + std::vector<Step>{unreadOfUser, updated, copied} + end);
    EXPECT_EQ(setNotesAsUnread(1, 4), 3000);
    EXPECT_TRUE(
        messages.hasTrace("setNotesAsUnread(): The note does (4) already belongs to unread list."));
}

TEST_F(DocumentRestoreTest, AUserNameThatFillsItsBufferIsPassedWhole) {
    const std::string name(257, 'n');
    script.play({{"SECKFMGetUserName", {.text = name}},
                 {"NSFDbGetUnreadNoteTable 1 " + name + " 1", {.status = 9}}});
    EXPECT_EQ(setNotesAsUnread(1, 4), 1000);
}

TEST_F(DocumentRestoreTest, ListLinesLoseOneCharacterAndTheListIsDeletedWhateverTheResult) {
    struct Case {
        std::string list;
        std::vector<NOTEID> restored; // of 4 and 12, which changed
        STATUS status = 0;            // of the first call
    };
    const Case cases[] = {
        {"4\n\n12\n", {12, 4}},
        {"12\r", {12}},
        {"4\r\n12", {12}}, // the first keeps its carriage return
        {" 4\n012\n", {}},
        {std::string(1027, '1') + "12\n", {12}}, // a line ends after 1027 characters
        {std::string("\0", 1) + "4\n", {}},
        {"", {}},
        {"4\n", {}, 9},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.list);
        const std::string copy = folder.write("copy/a.nsf");
        folder.write("noteids_list.txt", c.list);
        script.tables = {{10, {4, 12}}, {20, {12, 4}}};
        script.play({{"NSFDbOpen L:/live/a.nsf", {.status = c.status, .numbers = {1}}}});
        if (c.status == 0) {
            script.play({{"NSFDbOpen L:" + copy, {.numbers = {2}}},
                         begun[2],
                         begun[3],
                         begun[4],
                         documentsOfOriginal(),
                         destroyed(10)});
            if (!c.restored.empty()) {
                script.play({documentsOfBackup()});
                for (const NOTEID id : c.restored) {
                    script.play({{"NSFNoteDelete 1 " + std::to_string(id) + " 0"},
                                 {"NSFDbCopyNote 2 " + std::to_string(id) + " 1"}});
                }
                script.play({destroyed(20)});
            }
            script.play(closed);
        }
        EXPECT_EQ(ChangedDocumentsRecovery(copy.c_str(), "/live/a.nsf"),
                  c.status == 0 ? 3000 : 1000);
        ASSERT_TRUE(script.done());
        EXPECT_FALSE(folder.exists("copy/a.nsf"));
        EXPECT_FALSE(folder.exists("noteids_list.txt"));
        takeErrorText();
    }
}

TEST_F(DocumentRestoreTest, WithoutAReadableListNothingIsTouched) {
    const std::string copy = folder.write("copy/a.nsf");
    folder.makeDirectory("noteids_list.txt");
    EXPECT_EQ(ChangedDocumentsRecovery(copy.c_str(), "/live/a.nsf"), 1000);
    EXPECT_TRUE(messages.hasTrace("Could not open NoteID list file: U:L:" +
                                  folder.file("noteids_list.txt")));
    EXPECT_TRUE(folder.exists("copy/a.nsf"));
    EXPECT_EQ(takeErrorText(), "");
}

TEST_F(DocumentRestoreTest, TheLiveDatabaseIsNeverTakenForItsCopy) {
    const std::string live = folder.write("a.nsf", "mail");
    folder.write("noteids_list.txt", "4\n");
    EXPECT_EQ(ChangedDocumentsRecovery((folder.path() + "//a.nsf").c_str(), live.c_str()), 1000);
    EXPECT_EQ(folder.read("a.nsf"), "mail");
    EXPECT_THAT(takeErrorText(), testing::EndsWith("is the live database itself"));
}

TEST_F(DocumentRestoreTest, AShortPointInTimeIsTheServersToRefuse) {
    copyText(g_sQRTLN_Global.szPointInTime, "2024 1");
    script.play(opened +
                std::vector<Step>{{"ConvertTextToTIMEDATE defaults 1//2024 :", {.status = 9}}} +
                closed);
    EXPECT_EQ(DeletedDocumentsRecovery("/copy/a.nsf", "/live/a.nsf"), 1000);
    EXPECT_EQ(takeErrorText(), "Notes text 9");
    EXPECT_TRUE(messages.hasTrace("Deleted documents recovery failed"));
}

TEST_F(DocumentRestoreTest, LargeDatabasesCostNoMoreThanTheirDocuments) {
    // With a walk over the list for each document these would be 10^10 comparisons.
    constexpr NOTEID kDocuments = 100000;
    for (NOTEID id = 1; id <= kDocuments; ++id) {
        script.tables[10].push_back(id);
        script.tables[20].push_back(id + kDocuments);
        list(std::to_string(id));
    }
    script.play(begun +
                std::vector<Step>{documentsOfOriginal(), destroyed(10), documentsOfBackup(),
                                  destroyed(20)} +
                closed);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(restoreChanged(), 3000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

class DatabaseRecoveryTest : public NotesFloorTest {};

TEST_F(DatabaseRecoveryTest, OfflineAndOnlineCallsAndTheirResults) {
    const std::string file = "U:L:/data/a.nsf";
    const std::string notOffline = "TakeDbsOffline(): Error taking database offline " + file;
    const std::string notOnline = "BringDbsOnline(): Error taking database " + file + " online";
    const struct {
        int (*function)(const char*);
        STATUS status;
        int result;
        std::string trace;
    } rows[] = {
        {&TakeDbsOffline, 0, 3000, "TakeDbsOffline(): Database " + file + " taken offline"},
        {&TakeDbsOffline, 5098, 13, notOffline + ": Notes text 5098"},
        {&TakeDbsOffline, 9, 1000, notOffline + ": Notes text 9"},
        {&BringDbsOnline, 0, 3000, "BringDbsOnline(): Database " + file + " brought online"},
        {&BringDbsOnline, 9, 1000, notOnline + ": Notes text 9"},
        {&ActivateDb, 5098, 1000, notOnline + ": Notes text 5098"},
        {&ActivateDb, 0, 3000, "BringDbsOnline(): Database " + file + " brought online"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.trace);
        messages.clear();
        script.play({{row.function == &TakeDbsOffline ? "NSFTakeDatabaseOffline L:/data/a.nsf 0 0"
                                                      : "NSFBringDatabaseOnline L:/data/a.nsf 0",
                      {.status = row.status}}});
        EXPECT_EQ(row.function("/data/a.nsf"), row.result);
        EXPECT_TRUE(messages.hasTrace(row.trace));
        EXPECT_EQ(takeErrorText(),
                  row.status == 0 ? "" : "Notes text " + std::to_string(row.status));
        ASSERT_TRUE(script.done());
    }
    // No call with a path that was cut, and none without a runtime.
    const std::string longPath = "/" + std::string(1027, 'x');
    EXPECT_EQ(TakeDbsOffline(longPath.c_str()), 1000);
    EXPECT_EQ(BringDbsOnline(longPath.c_str()), 1000);
    EXPECT_THAT(takeErrorText(), testing::StartsWith("TakeDbsOffline(): File full path [U:L:/xxx"));
    g_sQRTLN_Global.bNotesInitialized = FALSE;
    EXPECT_EQ(TakeDbsOffline("/data/a.nsf"), 1000);
    EXPECT_EQ(takeErrorText(), "The Notes runtime system is not initialized!");
}

} // namespace
