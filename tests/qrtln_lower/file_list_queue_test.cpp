#include "qrt_lotus_notes/qrtln_l/file_list_queue.h"

#include <gmock/gmock.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Destroy {
    void operator()(LIST_INFO* queue) const { DestroyFIFOList(queue); }
};
using Queue = std::unique_ptr<LIST_INFO, Destroy>;

std::string step(LIST_INFO* queue) {
    char item[kPathSize];
    unsigned int size = 0;
    return ListFIFOItem(queue, item, &size) ? item : "(end)";
}

// The kind behind the payload is no part of it, and a payload need not be a text.
TEST(FileListQueue, SearchLooksAtRecordsThatAreNotTerminatedOrLargerThanAPath) {
    const Queue queue(CreateFIFOList());
    const std::string large(5000, 'l');
    EXPECT_TRUE(PushFIFOItemLN(queue.get(), "abc", 3, DB_BACKUP_FILE_TYPE_LOG));
    EXPECT_TRUE(PushFIFOItemLN(queue.get(), large.c_str(), 5001, DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(FIFOItemExists(queue.get(), "abc\x02"));
    EXPECT_TRUE(FIFOItemExists(queue.get(), large.c_str()));
    EXPECT_TRUE(pushPath(queue.get(), std::string(1027, 'p').c_str(), DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(pushPath(queue.get(), std::string(1028, 'p').c_str(), DB_BACKUP_FILE_TYPE_DB));
    EXPECT_FALSE(pushPath(nullptr, "x", DB_BACKUP_FILE_TYPE_DB));
}

// Against plain vectors with the one cursor beside them, which all queues share and only the end of
// a walk or search sets back: callers that end a walk early rely on it, or suffer from it. A queue
// is often given the address of one that is gone.
TEST(FileListQueue, BehavesLikeVectorsWithOneCursorOverRandomOperations) {
    unsigned int seed = 5;
    const auto random = [&](std::size_t below) {
        seed = seed * 1664525U + 1013904223U;
        return (seed >> 8) % static_cast<unsigned int>(below);
    };
    Queue queues[2] = {Queue(CreateFIFOList()), Queue(CreateFIFOList())};
    std::vector<std::string> models[2];
    std::size_t cursor = 0;
    for (int round = 0; round < 20000; ++round) {
        const unsigned int which = random(2);
        LIST_INFO* const queue = queues[which].get();
        std::vector<std::string>& model = models[which];
        const auto number = static_cast<int>(random(model.size() + 3)) - 1;
        const bool inside = number >= 1 && static_cast<std::size_t>(number) <= model.size();
        const std::string chosen = inside ? model[static_cast<std::size_t>(number) - 1] : "(none)";
        char item[kPathSize] = "(none)";
        unsigned int size = 0;
        DB_BACKUP_FILE_TYPE kind;
        switch (random(round % 100 == 0 ? 10 : 9)) {
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
            ASSERT_EQ(item, chosen);
            break;
        case 5: // a search starts where the cursor is, and misses what lies before
            ASSERT_EQ(FIFOItemExists(queue, chosen.c_str()) != FALSE,
                      inside && static_cast<std::size_t>(number) > cursor);
            cursor = 0;
            break;
        case 9:
            queues[which].reset();
            queues[which].reset(CreateFIFOList());
            model.clear();
            break;
        default:
            ASSERT_EQ(step(queue), cursor < model.size() ? model[cursor] : "(end)");
            cursor = cursor < model.size() ? cursor + 1 : 0;
        }
        ASSERT_EQ(queues[which]->iItemCount, static_cast<int>(model.size()));
        ASSERT_EQ(queues[which]->spLastItem == nullptr, model.empty());
    }
    step(nullptr);
}

// In processor time: a step that starts at the head each time takes minutes for this walk.
TEST(FileListQueue, WalkCostsNoMoreThanItsRecordsWhileAnotherQueueIsFilled) {
    const std::clock_t start = std::clock();
    const Queue queue(CreateFIFOList()), other(CreateFIFOList());
    for (int i = 0; i < 300000; ++i) {
        pushPath(queue.get(), "x", DB_BACKUP_FILE_TYPE_DB);
    }
    int steps = 0;
    for (; step(queue.get()) == "x"; ++steps) {
        pushPath(other.get(), "x", DB_BACKUP_FILE_TYPE_DB);
    }
    EXPECT_EQ(steps, 300000);
    EXPECT_LT(std::clock() - start, 10 * CLOCKS_PER_SEC);
}

} // namespace
