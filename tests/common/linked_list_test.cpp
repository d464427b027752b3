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

TEST(LinkedList, ElementsAreCopiesInOrderAndLeaveWithoutDisturbingTheirNeighbours) {
    t_LL list = ConsLL();
    EXPECT_EQ(IsElmLL(LastElmLL(list)), 0);
    EXPECT_THAT(walk(list), ElementsAre());
    std::string record = "one";
    void* const one = append(list, record);
    record = "changed";
    EXPECT_EQ(FirstElmLL(list), LastElmLL(list));
    EXPECT_EQ(IsElmLL(one), 4);
    void* const two = append(list, "two");
    append(list, "three");
    InsLLf(&list->head, 2, "0", linkAfter);
    EXPECT_THAT(walk(list), ElementsAre("0", "one", "two", "three"));
    DelElmLL(two);
    EXPECT_THAT(walk(list), ElementsAre("0", "one", "three"));
    EXPECT_EQ(EmptyLL(list), list);
    EXPECT_TRUE(IsEmptyLL(list));
    append(list, "again");
    testing::internal::CaptureStderr();
    EXPECT_EQ(InsLastLLf(list, 0, "x"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "In InsLLf: element with zero size \n");
    EXPECT_THAT(walk(list), ElementsAre("again"));
    EXPECT_EQ(DestLL(list), nullptr);
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
