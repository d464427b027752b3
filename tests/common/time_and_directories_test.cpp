#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "common/LL.h"
#include "common/cm_strptime.h"
#include "common/xutil.h"
#include "tests/support/temporary_folder.h"

namespace fs = std::filesystem;

namespace {

TEST(DirectoryBranch, MissingLevelsAreMadeWithTheirModeAndThePathIsWholeAgain) {
    const TemporaryFolder folder;
    const mode_t mask = umask(0077);
    std::string path = folder.file("a//b/");
    EXPECT_EQ(x_MakeDirBranch(path.data()), 0);
    umask(mask);
    EXPECT_EQ(path, folder.file("a//b/"));
    EXPECT_EQ(static_cast<unsigned>(fs::status(path).permissions()), 0775U);
    std::string blocked = folder.write("file") + "/below/more";
    EXPECT_EQ(x_MakeDirBranch(blocked.data()), -1);
    EXPECT_EQ(std::string(blocked.c_str()), folder.file("file")) << "cut where it failed";
    // Backslashes delimit where there is one: "two/x" is a name, and has no directory.
    fs::current_path(folder.path());
    std::string backslash = "one\\two/x";
    EXPECT_EQ(x_MakeDirBranch(backslash.data()), -1);
    fs::current_path("/");
    EXPECT_TRUE(folder.exists("one"));
}

TEST(LinkedListDeathTest, MemoryRunningOutEndsTheProcessWithALine) {
    t_LL list = ConsLL();
    EXPECT_EQ(InsLLf(&list->head, 0, "", linkAfter), nullptr);
    EXPECT_EQ(IsElmLL(InsLLf(&list->head, 2, "x", linkAfter)), 2);
    const volatile std::size_t tooMuch = SIZE_MAX;
    EXPECT_EXIT(InsLastLLf(list, tooMuch, "x"), testing::ExitedWithCode(255),
                "In InsLLf: malloc returned NULL \n");
    DestLL(list);
}

constexpr int kUntouched = INT_MIN;
constexpr char kStamp[] = "%Y%m%d%H%M%S";

struct tm untouched() {
    struct tm tm = {};
    tm.tm_year = tm.tm_mon = tm.tm_mday = tm.tm_hour = tm.tm_min = tm.tm_sec = kUntouched;
    tm.tm_wday = tm.tm_yday = kUntouched;
    return tm;
}

TEST(TimeText, IsParsedAsFarAsItMatches) {
    struct Case {
        const char* text;
        const char* format;
        const char* rest;
        std::vector<int> fields; // year, month, day, hour, minute, second, days of week and year
    };
    constexpr int no = kUntouched;
    const Case cases[] = {
        {"20240229235959", kStamp, "", {124, 1, 29, 23, 59, 59, 4, 59}},
        {"2024 01 15 10 30 00", kStamp, "", {124, 0, 15, 10, 30, 0, 1, 14}},
        {"20231231000061xyz", kStamp, "xyz", {123, 11, 31, 0, 0, 61, 0, 364}},
        {"19000301000000", kStamp, "", {0, 2, 1, 0, 0, 0, 4, 59}},
        {"20000301000000", kStamp, "", {100, 2, 1, 0, 0, 0, 3, 60}},
        {"00000101000000", kStamp, "", {-1900, 0, 1, 0, 0, 0, 6, 0}},
        // A number ends where any further digit would exceed its range: month 2, day 9.
        {"2024299", "%Y%m%d", "9", {124, 1, 9, no, no, no, 5, 39}},
        // Only what the format names is written, and the days are completed only from all three.
        {"2024-07", "%Y-%m", "", {124, 6, no, no, no, no, no, no}},
        {"12:34", "%H:%M", "", {no, no, no, 12, 34, no, no, no}},
        {"5%  6", "%d%% %H", "", {no, no, 5, 6, no, no, no, no}},
    };
    for (const Case& c : cases) {
        struct tm tm = untouched();
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
    // Other directives go to the platform.
    EXPECT_STREQ(cm_strptime("29 Feb 2024 11:05 PM", "%d %b %Y %I:%M %p", &tm), "");
    EXPECT_EQ(tm.tm_hour, 23);
}

} // namespace
