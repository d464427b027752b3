#include <gmock/gmock.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/LL.h"
#include "common/cm_strptime.h"

namespace {

TEST(LinkedListDeathTest, MemoryRunningOutEndsTheProcessWithALine) {
    t_LL list = ConsLL();
    EXPECT_EQ(InsLLf(&list->head, 0, "", linkAfter), nullptr);
    EXPECT_EQ(IsElmLL(InsLLf(&list->head, 2, "x", linkAfter)), 2);
    const volatile std::size_t tooMuch = SIZE_MAX;
    EXPECT_EXIT(InsLastLLf(list, tooMuch, "x"), testing::ExitedWithCode(255),
                "In InsLLf: malloc returned NULL \n");
    DestLL(list);
}

TEST(TimeText, IsParsedAsFarAsItMatches) {
    constexpr int no = -5; // a field that is not written
    constexpr char kStamp[] = "%Y%m%d%H%M%S";
    const struct {
        const char* text;
        const char* format;
        const char* rest;
        std::vector<int> fields; // year, month, day, hour, minute, second, days of week and year
    } cases[] = {
        {"20240229235959", kStamp, "", {124, 1, 29, 23, 59, 59, 4, 59}},
        {"2023 12 31 00 00 61xyz", kStamp, "xyz", {123, 11, 31, 0, 0, 61, 0, 364}},
        {"19000301000000", kStamp, "", {0, 2, 1, 0, 0, 0, 4, 59}},
        {"00000101000000", kStamp, "", {-1900, 0, 1, 0, 0, 0, 6, 0}},
        // A number ends where any further digit would exceed its range: month 2, day 9.
        {"2024299", "%Y%m%d", "9", {124, 1, 9, no, no, no, 5, 39}},
        // Only what the format names is written, and the days are completed only from all three.
        {"2024-07", "%Y-%m", "", {124, 6, no, no, no, no, no, no}},
        {"5%  6", "%d%% %H", "", {no, no, 5, 6, no, no, no, no}},
        // Other directives go to the platform.
        {"11:05 PM", "%I:%M %p", "", {no, no, no, 23, 5, no, no, no}},
    };
    for (const auto& c : cases) {
        struct tm tm = {no, no, no, no, no, no, no, no, no, 0, nullptr};
        EXPECT_STREQ(cm_strptime(c.text, c.format, &tm), c.rest) << c.text;
        EXPECT_THAT(c.fields, testing::ElementsAre(tm.tm_year, tm.tm_mon, tm.tm_mday, tm.tm_hour,
                                                   tm.tm_min, tm.tm_sec, tm.tm_wday, tm.tm_yday))
            << c.text;
    }
    struct tm tm = {};
    for (const char* text : {"20241301000000", "20240001000000", "20240100000000", "202401010000",
                             "yesterday", "\t20240101000000", ""}) {
        EXPECT_EQ(cm_strptime(text, kStamp, &tm), nullptr) << text;
    }
    EXPECT_EQ(cm_strptime("2024-01", "%Y/%m", &tm), nullptr);
}

} // namespace
