#include "common/LL.h"

#include <gmock/gmock.h>

#include <limits>
#include <string>
#include <vector>

using testing::ElementsAre;

// Lets an impossible allocation fail, as it does without the sanitizer, instead of ending the test.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

std::vector<std::string> walk(t_LL list) {
    std::vector<std::string> texts;
    for (void* element = FirstElmLL(list); IsElmLL(element); element = NextElmLL(element)) {
        texts.emplace_back(static_cast<char*>(element));
    }
    return texts;
}

void* append(t_LL list, const std::string& text) {
    return InsLastLLf(list, text.size() + 1, text.c_str());
}

TEST(LinkedList, EmptyListHasNoElementsAtEitherEnd) {
    t_LL list = ConsLL();
    EXPECT_TRUE(IsEmptyLL(list));
    EXPECT_EQ(IsElmLL(FirstElmLL(list)), 0);
    EXPECT_EQ(IsElmLL(LastElmLL(list)), 0);
    EXPECT_THAT(walk(list), ElementsAre());
    EXPECT_EQ(DestLL(list), nullptr);
}

TEST(LinkedList, ElementsAreCopiesInOrderAndLeaveWithoutDisturbingTheirNeighbours) {
    t_LL list = ConsLL();
    std::string record = "one";
    void* const one = append(list, record);
    record = "changed";
    EXPECT_EQ(FirstElmLL(list), LastElmLL(list));
    EXPECT_EQ(IsElmLL(one), 4);
    void* const two = append(list, "two");
    void* const three = append(list, "three");
    EXPECT_THAT(walk(list), ElementsAre("one", "two", "three"));
    DelElmLL(two);
    EXPECT_THAT(walk(list), ElementsAre("one", "three"));
    DelElmLL(three);
    DelElmLL(one);
    EXPECT_TRUE(IsEmptyLL(list));
    DestLL(list);
}

TEST(LinkedList, LinkFunctionDecidesTheEndOfAnInsertion) {
    t_LL list = ConsLL();
    append(list, "b");
    InsLLf(&list->head, 2, "a", linkAfter);
    InsLLf(&list->head, 2, "c", linkBefore);
    EXPECT_THAT(walk(list), ElementsAre("a", "b", "c"));
    EXPECT_EQ(EmptyLL(list), list);
    EXPECT_TRUE(IsEmptyLL(list));
    append(list, "again");
    EXPECT_THAT(walk(list), ElementsAre("again"));
    EXPECT_EQ(DestLL(list), nullptr);
}

TEST(LinkedList, ZeroSizeIsRefusedWithALine) {
    t_LL list = ConsLL();
    testing::internal::CaptureStderr();
    EXPECT_EQ(InsLastLLf(list, 0, "x"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "In InsLLf: element with zero size \n");
    EXPECT_TRUE(IsEmptyLL(list));
    DestLL(list);
}

TEST(LinkedListDeathTest, MemoryRunningOutEndsTheProcessWithALine) {
    t_LL list = ConsLL();
    // The second size overflows when the header is added to it.
    for (const std::size_t tooMuch :
         {std::numeric_limits<std::size_t>::max() / 2, std::numeric_limits<std::size_t>::max()}) {
        const volatile std::size_t size = tooMuch;
        EXPECT_EXIT(InsLastLLf(list, size, "x"), testing::ExitedWithCode(255),
                    "In InsLLf: malloc returned NULL \n");
    }
    DestLL(list);
}

} // namespace
