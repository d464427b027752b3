#include "tests/qrtln_lower/operation_test.h"

namespace {

class FileListQueue : public OperationTest {
  protected:
    FileListQueue() {
        setQueue(queue, "a b c d");
        setQueue(other, "x y z");
    }
    ~FileListQueue() override {
        DestroyFIFOList(queue);
        DestroyFIFOList(other);
    }

    static std::string step(LIST_INFO* list) {
        char item[kPathSize];
        unsigned int size = 0;
        return ListFIFOItem(list, item, &size) ? item : "(end)";
    }
    static std::string walk(LIST_INFO* list) {
        std::string text;
        for (std::string item; (item = step(list)) != "(end)";) {
            text += item;
        }
        return text;
    }

    LIST_INFO* queue = nullptr;
    LIST_INFO* other = nullptr;
};

// Callers that end a walk early rely on it, or suffer from it.
TEST_F(FileListQueue, OneCursorServesAllQueuesAndOnlyTheEndSetsItBack) {
    EXPECT_TRUE(messages.hasTrace("PushFIFOItemLN: z."));
    EXPECT_EQ(step(queue), "a");
    EXPECT_EQ(walk(other), "yz");
    EXPECT_EQ(walk(queue), "abcd");
    EXPECT_EQ(step(other), "x");
    EXPECT_FALSE(FIFOItemExists(queue, "a")) << "a search misses what lies before the cursor";
    EXPECT_TRUE(FIFOItemExists(queue, "a"));
    EXPECT_EQ(step(nullptr), "(end)");
    // A queue is often given the address of one that is gone.
    EXPECT_EQ(step(queue), "a");
    EXPECT_EQ(step(queue), "b");
    setQueue(queue, "e f g h");
    EXPECT_EQ(walk(queue), "gh");
}

TEST_F(FileListQueue, RecordsLeaveFromAnywhere) {
    EXPECT_EQ(step(queue), "a");
    for (const auto& [number, left] :
         {std::pair{0, "abcd"}, {5, "abcd"}, {2, "acd"}, {3, "ac"}, {1, "c"}, {1, ""}, {1, ""}}) {
        const bool isThere = number >= 1 && number <= queue->iItemCount;
        EXPECT_EQ(DeleteFIFOItemAt(queue, number) != FALSE, isThere);
        walk(other); // to its end
        EXPECT_EQ(walk(queue), left);
        EXPECT_EQ(queue->iItemCount, static_cast<int>(std::string(left).size()));
        EXPECT_EQ(queue->spLastItem == nullptr, *left == '\0');
    }
    setQueue(queue, "e f");
    EXPECT_EQ(drain(queue), "e f");
    EXPECT_EQ(drain(queue), "");
}

// The kind behind the payload is no part of it, and a payload need not be a text.
TEST_F(FileListQueue, SearchLooksAtRecordsThatAreNotTerminatedOrLargerThanAPath) {
    const std::string large(5000, 'l');
    EXPECT_TRUE(PushFIFOItemLN(queue, "abc", 3, DB_BACKUP_FILE_TYPE_LOG));
    EXPECT_TRUE(PushFIFOItemLN(queue, large.c_str(), 5001, DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(FIFOItemExists(queue, "abc\x02"));
    EXPECT_TRUE(FIFOItemExists(queue, large.c_str()));
    EXPECT_TRUE(pushPath(queue, std::string(1027, 'p').c_str(), DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(pushPath(queue, std::string(1028, 'p').c_str(), DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(pushPath(nullptr, "x", DB_BACKUP_FILE_TYPE_DB));
}

} // namespace
