#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"

#include <gmock/gmock.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "notes_api/notes_api.h"
#include "tests/support/message_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Destroy {
    void operator()(LIST_INFO* queue) const { DestroyFIFOList(queue); }
};
using Queue = std::unique_ptr<LIST_INFO, Destroy>;
using Texts = std::vector<std::string>;

Queue queueOf(const Texts& texts) {
    Queue queue(CreateFIFOList());
    for (const std::string& text : texts) {
        EXPECT_TRUE(pushPath(queue.get(), text.c_str(), DB_BACKUP_FILE_TYPE_DB));
    }
    return queue;
}

// What ListFIFOItem returns from here to the end of the walk.
Texts walk(LIST_INFO* queue) {
    Texts texts;
    char item[kPathSize];
    unsigned int size = 0;
    while (ListFIFOItem(queue, item, &size)) {
        EXPECT_EQ(size, std::strlen(item) + 1);
        texts.emplace_back(item);
    }
    return texts;
}

std::string step(LIST_INFO* queue) {
    char item[kPathSize];
    unsigned int size = 0;
    return ListFIFOItem(queue, item, &size) ? item : "(end)";
}

TEST(FileListQueue, RecordsComeOutInOrderWithSizeAndKind) {
    const Queue queue(CreateFIFOList());
    const DB_BACKUP_FILE_TYPE kinds[] = {DB_BACKUP_FILE_TYPE_DB, DB_BACKUP_FILE_TYPE_SYS,
                                         DB_BACKUP_FILE_TYPE_LOG, DB_BACKUP_FILE_TYPE_NOTES};
    const std::string payloads[] = {"a", std::string("b\0b", 3), "", std::string(5000, 'd')};
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(PushFIFOItemLN(queue.get(), payloads[i].data(),
                                   static_cast<unsigned int>(payloads[i].size()), kinds[i]));
    }
    EXPECT_EQ(getFIFOItemNumber(queue.get()), 4);
    char data[6000];
    unsigned int size = 0;
    DB_BACKUP_FILE_TYPE kind = DB_BACKUP_FILE_TYPE_DB;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(PullFIFOItemLN(queue.get(), data, &size, &kind));
        EXPECT_EQ(std::string(data, size), payloads[i]);
        EXPECT_EQ(kind, kinds[i]);
    }
    // Empty again: the outputs stay, and the next push starts afresh.
    data[0] = 'x';
    size = 77;
    EXPECT_FALSE(PullFIFOItemLN(queue.get(), data, &size, &kind));
    EXPECT_EQ(data[0], 'x');
    EXPECT_EQ(size, 77U);
    EXPECT_EQ(queue->spFirstItem, nullptr);
    EXPECT_EQ(queue->spLastItem, nullptr);
    pushPath(queue.get(), "again", DB_BACKUP_FILE_TYPE_DB);
    EXPECT_THAT(walk(queue.get()), ElementsAre("again"));
}

TEST(FileListQueue, NullQueueIsTolerated) {
    char item[kPathSize];
    unsigned int size = 0;
    DB_BACKUP_FILE_TYPE kind;
    EXPECT_FALSE(PushFIFOItemLN(nullptr, "x", 2, DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(pushPath(nullptr, "x", DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(PullFIFOItemLN(nullptr, item, &size, &kind));
    EXPECT_FALSE(PullFIFOItemAt(nullptr, 1, item, &size));
    EXPECT_FALSE(ListFIFOItem(nullptr, item, &size));
    EXPECT_FALSE(FIFOItemExists(nullptr, "x"));
    EXPECT_FALSE(DeleteFIFOItemAt(nullptr, 1));
    EXPECT_EQ(getFIFOItemNumber(nullptr), 0);
    DestroyFIFOList(nullptr);
}

// The remembered place must die with its queue, because the next one is often given its address.
TEST(FileListQueue, NewQueueAtTheAddressOfADestroyedOneIsWalkedFromItsOwnRecords) {
    for (int round = 0; round < 50; ++round) {
        {
            const Queue queue = queueOf({"old", "old"});
            EXPECT_EQ(step(queue.get()), "old");
        }
        const std::string own = "b" + std::to_string(round);
        const Queue queue = queueOf({"a", own});
        EXPECT_EQ(step(queue.get()), own); // the cursor itself stayed in the middle
        EXPECT_EQ(step(queue.get()), "(end)");
    }
}

// Against plain vectors with the one cursor beside them, which all queues share and only the end of
// a walk or search sets back: callers that end a walk early rely on it, or suffer from it.
TEST(FileListQueue, BehavesLikeVectorsWithOneCursorOverRandomOperations) {
    unsigned int seed = 5;
    const auto random = [&](unsigned int below) {
        seed = seed * 1664525U + 1013904223U;
        return (seed >> 8) % below;
    };
    Queue queues[2] = {Queue(CreateFIFOList()), Queue(CreateFIFOList())};
    Texts models[2];
    std::size_t cursor = 0;
    for (int round = 0; round < 20000; ++round) {
        const unsigned int which = random(2);
        LIST_INFO* const queue = queues[which].get();
        Texts& model = models[which];
        const auto number =
            static_cast<int>(random(static_cast<unsigned int>(model.size()) + 3)) - 1;
        const bool inside = number >= 1 && static_cast<std::size_t>(number) <= model.size();
        char item[kPathSize] = "(none)";
        unsigned int size = 0;
        DB_BACKUP_FILE_TYPE kind;
        switch (random(8)) {
        case 0:
        case 1:
            model.push_back(std::to_string(round));
            pushPath(queue, model.back().c_str(), DB_BACKUP_FILE_TYPE_DB);
            break;
        case 2:
            ASSERT_EQ(PullFIFOItemLN(queue, item, &size, &kind) != FALSE, !model.empty());
            if (!model.empty()) {
                ASSERT_EQ(item, model.front());
                model.erase(model.begin());
            }
            break;
        case 3:
            ASSERT_EQ(DeleteFIFOItemAt(queue, number) != FALSE, inside);
            if (inside) {
                model.erase(model.begin() + number - 1);
            }
            break;
        case 4:
            ASSERT_EQ(PullFIFOItemAt(queue, number, item, &size) != FALSE, inside);
            ASSERT_EQ(item, inside ? model[static_cast<std::size_t>(number) - 1] : "(none)");
            break;
        case 5: {
            // A search starts where the cursor is, and misses what lies before.
            const std::string text = inside ? model[static_cast<std::size_t>(number) - 1] : "x";
            ASSERT_EQ(FIFOItemExists(queue, text.c_str()) != FALSE,
                      inside && static_cast<std::size_t>(number) > cursor);
            cursor = 0;
            break;
        }
        default:
            if (cursor < model.size()) {
                ASSERT_EQ(step(queue), model[cursor++]);
            } else {
                ASSERT_EQ(step(queue), "(end)");
                cursor = 0;
            }
        }
        ASSERT_EQ(queue->iItemCount, static_cast<int>(model.size()));
        ASSERT_EQ(queue->spLastItem == nullptr, model.empty());
    }
    step(nullptr);
}

// In processor time: a step that starts at the head each time takes minutes for this walk.
TEST(FileListQueue, WalkCostsNoMoreThanItsRecordsWhileAnotherQueueIsFilled) {
    const Queue queue(CreateFIFOList()), other(CreateFIFOList());
    constexpr int kRecords = 300000;
    const std::clock_t start = std::clock();
    for (int i = 0; i < kRecords; ++i) {
        pushPath(queue.get(), "x", DB_BACKUP_FILE_TYPE_DB);
    }
    char item[kPathSize];
    unsigned int size = 0;
    int steps = 0;
    while (ListFIFOItem(queue.get(), item, &size)) {
        pushPath(other.get(), item, DB_BACKUP_FILE_TYPE_DB);
        ++steps;
    }
    EXPECT_EQ(steps, kRecords);
    EXPECT_LT(std::clock() - start, 10 * CLOCKS_PER_SEC);
}

TEST(FileListQueue, SearchLooksAtRecordsThatAreNotTerminatedOrLargerThanAPath) {
    const Queue queue(CreateFIFOList());
    // The kind behind the payload must not count as its end or its text.
    PushFIFOItemLN(queue.get(), "abc", 3, DB_BACKUP_FILE_TYPE_LOG);
    const std::string large(5000, 'l');
    PushFIFOItemLN(queue.get(), large.c_str(), 5001, DB_BACKUP_FILE_TYPE_DB);
    EXPECT_TRUE(FIFOItemExists(queue.get(), "abc"));
    EXPECT_FALSE(FIFOItemExists(queue.get(), "abc\x02"));
    EXPECT_TRUE(FIFOItemExists(queue.get(), large.c_str()));
}

TEST(FileListQueue, PathThatFitsNoBufferIsSkippedWithALineThatNamesIt) {
    const Queue queue(CreateFIFOList());
    MessageCapture messages;
    const std::string longest(1027, 'p'), tooLong(1028, 'p');
    EXPECT_TRUE(pushPath(queue.get(), longest.c_str(), DB_BACKUP_FILE_TYPE_SYS));
    EXPECT_THAT(messages.logs(), IsEmpty());
    EXPECT_FALSE(pushPath(queue.get(), tooLong.c_str(), DB_BACKUP_FILE_TYPE_SYS));
    EXPECT_THAT(messages.logs(), ElementsAre(testing::HasSubstr(tooLong)));
    EXPECT_THAT(walk(queue.get()), ElementsAre(longest));
}

int s_translations = 0;

TEST(FileListQueue, PushIsTracedWithTheNameInUtf8AndTranslatesOnlyThen) {
    const Queue queue(CreateFIFOList());
    g_sQRTLN_Global.bNotesInitialized = TRUE;
    notes_api.OSTranslate = [](WORD mode, const char* in, WORD, char* out, WORD) -> WORD {
        ++s_translations;
        std::snprintf(out, 64, "%s%u", in, static_cast<unsigned>(mode));
        return 0;
    };
    s_translations = 0;
    pushPath(queue.get(), "silent", DB_BACKUP_FILE_TYPE_DB);
    EXPECT_EQ(s_translations, 0);
    {
        MessageCapture messages;
        PushFIFOItemLN(queue.get(), "name", 4, DB_BACKUP_FILE_TYPE_LOG);
        EXPECT_THAT(messages.traces(), ElementsAre("PushFIFOItemLN: name022."));
    }
    notes_api.OSTranslate.setAddress(nullptr);
    g_sQRTLN_Global.bNotesInitialized = FALSE;
}

} // namespace
