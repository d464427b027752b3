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

constexpr STATUS kNothing = 572;
constexpr NOTEID kDeletedBit = 0x80000000;

std::vector<Step> operator+(std::vector<Step> first, const std::vector<Step>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

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

// Every step that can fail or end the work, with what is released and said.
TEST_F(DocumentRestoreTest, EachFailureReleasesEverythingAndSaysWhat) {
    struct Case {
        std::vector<Step> steps;
        int result;
        std::string trace; // "@" stands for the function's name
        std::string error;
    };
    const Step timeFails = {"ConvertTextToTIMEDATE defaults 01/15/2024 10:30", {.status = 9}};
    const std::vector<Step> untilBackup =
        begun + std::vector<Step>{documentsOfOriginal(), destroyed(10)};
    const auto common = [&](const std::string& original) {
        return std::vector<Case>{
            {{{"NSFDbOpen L:/live/a.nsf", {.status = 259, .numbers = {9}}}},
             1000,
             "Notes API NSFDbOpen() failure on file: U:L:/live/a.nsf",
             "Notes text 259"},
            {{opened[0], {"NSFDbOpen L:/copy/a.nsf", {.status = 259}}, closed[0]},
             1000,
             "Notes API NSFDbOpen() failure on file: U:L:/copy/a.nsf",
             "Notes text 259"},
            {opened + std::vector<Step>{timeFails} + closed, 1000,
             "@(): Error converting time value 01/15/2024 10:30.", "Notes text 9"},
            {begun + std::vector<Step>{documentsOfOriginal(kNothing)} + closed, 3000,
             "@(): There are no documents in the original database which has been changed" +
                 original + " since 01/15/2024 10:30.",
             ""},
            {begun + std::vector<Step>{documentsOfOriginal(9)} + closed, 1000,
             "@(): NSFDbGetModifiedNoteTable() call for original database failed.", "Notes text 9"},
            {untilBackup + std::vector<Step>{documentsOfBackup(kNothing)} + closed, 3000,
             "@(): There are no documents in the backup database.", ""},
            {untilBackup + std::vector<Step>{documentsOfBackup(9)} + closed, 1000,
             "@(): NSFDbGetModifiedNoteTable() call for backup database failed.", "Notes text 9"}};
    };
    const std::vector<Step> untilScan = untilBackup + std::vector<Step>{documentsOfBackup()};
    const Step copy = {"NSFDbCopyNote 2 4 1"};
    const Step copyFails = {"NSFDbCopyNote 2 4 1", {.status = 9}};
    const Step remove = {"NSFNoteDelete 1 4 0"};
    const std::vector<Step> originalCloseFails = {
        destroyed(20), {"NSFDbClose 1", {.status = 11}}, closed[1]};
    const std::vector<Step> backupCloseFails = {
        destroyed(20), closed[0], {"NSFDbClose 2", {.status = 12}}};

    auto deletedCases = common(" (deleted)");
    deletedCases.push_back({untilScan + std::vector<Step>{copyFails, destroyed(20)} + closed, 1000,
                            "@(): NSFDbCopyNote() call failed.", "Notes text 9"});
    deletedCases.push_back({untilScan + std::vector<Step>{copy} + marked + originalCloseFails, 1000,
                            "@(): NSFDbClose() call for original database FAILED: Notes text 11.",
                            ""});
    deletedCases.push_back({untilScan + std::vector<Step>{copy} + marked + backupCloseFails, 1000,
                            "@(): NSFDbClose() call for backup database FAILED: Notes text 12.",
                            ""});
    // Unread marks are not worth a failure.
    deletedCases.push_back(
        {untilScan + std::vector<Step>{copy, {"SECKFMGetUserName", {.status = 9}}, destroyed(20)} +
             closed,
         3000, "@(): Setting note as unread failed.", ""});

    auto changedCases = common("");
    changedCases.push_back(
        {untilScan + std::vector<Step>{{remove.call, {.status = 9}}, destroyed(20)} + closed, 1000,
         "@(): NSFNoteDelete() call failed.", "Notes text 9"});
    changedCases.push_back(
        {untilScan + std::vector<Step>{remove, copyFails, destroyed(20)} + closed, 1000,
         "@(): NSFDbCopyNote() call failed.", "Notes text 9"});
    changedCases.push_back({untilScan + std::vector<Step>{remove, copy} + originalCloseFails, 1000,
                            "@(): NSFDbClose() call for original database FAILED: Notes text 11.",
                            ""});
    // The text of the other function: readers of traces know it.
    changedCases.push_back(
        {untilScan + std::vector<Step>{remove, copy} + backupCloseFails, 1000,
         "RestoreDeletedDocuments(): NSFDbClose() call for backup database FAILED: Notes text 12.",
         ""});

    list("4");
    for (const bool deleted : {true, false}) {
        for (const Case& c : deleted ? deletedCases : changedCases) {
            SCOPED_TRACE(c.trace);
            messages.clear();
            script.tables = {{10, {deleted ? kDeletedBit | 4 : 4}}, {20, {4}}};
            script.play(c.steps);
            EXPECT_EQ(deleted ? restoreDeleted() : restoreChanged(), c.result);
            std::string trace = c.trace;
            if (trace.starts_with('@')) {
                trace.replace(0, 1,
                              deleted ? "RestoreDeletedDocuments" : "RestoreChangedDocuments");
            }
            EXPECT_TRUE(messages.hasTrace(trace));
            EXPECT_EQ(takeErrorText(), c.error);
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
    struct Case {
        std::vector<Step> steps;
        int result;
        const char* trace;
    };
    const auto failing = [](const Step& step) { return Step{step.call, {.status = 9}}; };
    const std::vector<Step> until = user + std::vector<Step>{unreadOfUser, updated, copied};
    const std::vector<Step> end = {updated, destroyed(31), destroyed(30)};
    const Case cases[] = {
        {{failing(user[0])}, 1000, "setNotesAsUnread(): Could not get user name."},
        {user + std::vector<Step>{failing(unreadOfUser)}, 1000,
         "setNotesAsUnread(): Could not get unread notes table."},
        {user + std::vector<Step>{unreadOfUser, failing(updated), destroyed(30)}, 1000,
         "setNotesAsUnread(): Could not update unread notes table."},
        {user + std::vector<Step>{unreadOfUser, updated, failing(copied), destroyed(30)}, 1000,
         "setNotesAsUnread(): Could not copy unread notes table."},
        // Not fatal: the table goes back without the note, or not at all.
        {until + std::vector<Step>{{"IDInsert 30 4", {.status = 9}}, written} + end, 3000,
         "setNotesAsUnread(): Insert note into unread list unsuccessful."},
        {until + std::vector<Step>{{"IDInsert 30 4"}, failing(written)} + end, 3000,
         "setNotesAsUnread(): Could not set unread note table."},
        {until +
             std::vector<Step>{
                 {"IDInsert 30 4"}, written, failing(updated), destroyed(31), destroyed(30)},
         1000, "setNotesAsUnread(): Could not update unread notes table."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.trace);
        messages.clear();
        script.tables.clear();
        script.play(c.steps);
        EXPECT_EQ(setNotesAsUnread(1, 4), c.result);
        EXPECT_TRUE(messages.hasTrace(c.trace));
        EXPECT_TRUE(messages.logs().empty());
        ASSERT_TRUE(script.done());
    }
    // Unread already: nothing is written.
    script.tables[30] = {4};
    script.play(until + end);
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
        STATUS status;
    };
    const std::string longLine(1027, '1');
    const Case cases[] = {
        {"4\n12\n", {12, 4}, 0},
        {"\n\n12", {12}, 0},
        {"12\r", {12}, 0},
        {"4\r\n12\r\n", {}, 0}, // keeps its carriage returns
        {"4\r\n12", {12}, 0},
        {" 4\n012\n", {}, 0},
        {longLine + "12\n", {12}, 0}, // a line ends after 1027 characters
        {std::string("\0"
                     "4\n",
                     3),
         {},
         0},
        {"", {}, 0},
        {"4\n", {}, 9}, // the first call fails
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.list);
        const std::string copy = folder.write("copy/a.nsf");
        folder.write("noteids_list.txt", c.list);
        script.tables = {{10, {4, 12}}, {20, {12, 4}}};
        std::vector<Step> steps = {
            {"NSFDbOpen L:/live/a.nsf", {.status = c.status, .numbers = {1}}}};
        if (c.status == 0) {
            steps = steps + std::vector<Step>{{"NSFDbOpen L:" + copy, {.numbers = {2}}},
                                              begun[2],
                                              begun[3],
                                              begun[4],
                                              documentsOfOriginal(),
                                              destroyed(10)};
            if (!c.restored.empty()) {
                steps.push_back(documentsOfBackup());
                for (const NOTEID id : c.restored) {
                    steps.push_back({"NSFNoteDelete 1 " + std::to_string(id) + " 0"});
                    steps.push_back({"NSFDbCopyNote 2 " + std::to_string(id) + " 1"});
                }
                steps.push_back(destroyed(20));
            }
            steps = steps + closed;
        }
        script.play(steps);
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
    for (const bool directory : {false, true}) {
        SCOPED_TRACE(directory);
        if (directory) {
            folder.makeDirectory("noteids_list.txt");
        }
        messages.clear();
        EXPECT_EQ(ChangedDocumentsRecovery(copy.c_str(), "/live/a.nsf"), 1000);
        EXPECT_TRUE(messages.hasTrace("Could not open NoteID list file: U:L:" +
                                      folder.file("noteids_list.txt")));
        EXPECT_TRUE(folder.exists("copy/a.nsf"));
        EXPECT_EQ(takeErrorText(), "");
    }
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
    struct Case {
        int (*function)(const char*);
        Step step;
        int result;
        const char* trace;
    };
    const std::string offline = "NSFTakeDatabaseOffline L:/data/a.nsf 0 0";
    const std::string online = "NSFBringDatabaseOnline L:/data/a.nsf 0";
    const char* online9 =
        "BringDbsOnline(): Error taking database U:L:/data/a.nsf online: Notes text 9";
    const Case cases[] = {
        {&TakeDbsOffline,
         {offline},
         3000,
         "TakeDbsOffline(): Database U:L:/data/a.nsf taken offline"},
        {&TakeDbsOffline,
         {offline, {.status = 5098}},
         13,
         "TakeDbsOffline(): Error taking database offline U:L:/data/a.nsf: Notes text 5098"},
        {&TakeDbsOffline,
         {offline, {.status = 9}},
         1000,
         "TakeDbsOffline(): Error taking database offline U:L:/data/a.nsf: Notes text 9"},
        {&BringDbsOnline,
         {online},
         3000,
         "BringDbsOnline(): Database U:L:/data/a.nsf brought online"},
        {&BringDbsOnline, {online, {.status = 9}}, 1000, online9},
        {&ActivateDb, {online, {.status = 5098}}, 1000, nullptr},
        {&ActivateDb, {online}, 3000, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.step.call + " " + std::to_string(c.step.answer.status));
        script.play({c.step});
        EXPECT_EQ(c.function("/data/a.nsf"), c.result);
        if (c.trace != nullptr) {
            EXPECT_TRUE(messages.hasTrace(c.trace));
        }
        EXPECT_EQ(takeErrorText(), c.step.answer.status == 0
                                       ? ""
                                       : "Notes text " + std::to_string(c.step.answer.status));
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
