#include <gmock/gmock.h>

#include <climits>
#include <string>

#include "common/cm_strptime.h"
#include "common/strlib.h"

namespace {

constexpr int kUntouched = INT_MIN;
constexpr char kStamp[] = "%Y%m%d%H%M%S";

struct tm untouched() {
    struct tm tm = {};
    tm.tm_year = tm.tm_mon = tm.tm_mday = tm.tm_hour = tm.tm_min = tm.tm_sec = kUntouched;
    tm.tm_wday = tm.tm_yday = tm.tm_isdst = kUntouched;
    return tm;
}

struct TimeCase {
    const char* text;
    const char* format;
    // NULL where the text does not match.
    const char* rest;
    int year, month, day, hour, minute, second, weekday, yearday;
};

class TimeText : public testing::TestWithParam<TimeCase> {};

TEST_P(TimeText, IsParsedAsFarAsItMatches) {
    const TimeCase& expected = GetParam();
    struct tm tm = untouched();
    const char* const rest = cm_strptime(expected.text, expected.format, &tm);
    if (expected.rest == nullptr) {
        EXPECT_EQ(rest, nullptr);
        return;
    }
    ASSERT_NE(rest, nullptr);
    EXPECT_STREQ(rest, expected.rest);
    EXPECT_EQ(tm.tm_year, expected.year);
    EXPECT_EQ(tm.tm_mon, expected.month);
    EXPECT_EQ(tm.tm_mday, expected.day);
    EXPECT_EQ(tm.tm_hour, expected.hour);
    EXPECT_EQ(tm.tm_min, expected.minute);
    EXPECT_EQ(tm.tm_sec, expected.second);
    EXPECT_EQ(tm.tm_wday, expected.weekday);
    EXPECT_EQ(tm.tm_yday, expected.yearday);
    EXPECT_EQ(tm.tm_isdst, kUntouched);
}

constexpr int no = kUntouched;
INSTANTIATE_TEST_SUITE_P(
    Stamps, TimeText,
    testing::Values(
        TimeCase{"20240229235959", kStamp, "", 124, 1, 29, 23, 59, 59, 4, 59},
        TimeCase{"2024 01 15 10 30 00", kStamp, "", 124, 0, 15, 10, 30, 0, 1, 14},
        TimeCase{"20231231000061xyz", kStamp, "xyz", 123, 11, 31, 0, 0, 61, 0, 364},
        TimeCase{"20001231000000", kStamp, "", 100, 11, 31, 0, 0, 0, 0, 365}, // leap century
        TimeCase{"21000301000000", kStamp, "", 200, 2, 1, 0, 0, 0, 1, 59},    // common century
        TimeCase{"00000101000000", kStamp, "", -1900, 0, 1, 0, 0, 0, 6, 0},
        TimeCase{"19700101000000", kStamp, "", 70, 0, 1, 0, 0, 0, 4, 0},
        // A number ends where any further digit would exceed its range: month 2, day 9.
        TimeCase{"2024299", "%Y%m%d", "9", 124, 1, 9, no, no, no, 5, 39},
        // Only what the format names is written, and the days are completed only from all three.
        TimeCase{"2024-07", "%Y-%m", "", 124, 6, no, no, no, no, no, no},
        TimeCase{"12:34", "%H:%M", "", no, no, no, 12, 34, no, no, no},
        TimeCase{"5%  6", "%d%% %H", "", no, no, 5, 6, no, no, no, no}));

INSTANTIATE_TEST_SUITE_P(
    Mismatches, TimeText,
    testing::Values(TimeCase{"20241301000000", "%Y%m%d%H%M%S", nullptr, 0, 0, 0, 0, 0, 0, 0, 0},
                    TimeCase{"20240001000000", kStamp, nullptr, 0, 0, 0, 0, 0, 0, 0, 0},
                    TimeCase{"20240100000000", kStamp, nullptr, 0, 0, 0, 0, 0, 0, 0, 0},
                    TimeCase{"202401010000", kStamp, nullptr, 0, 0, 0, 0, 0, 0, 0, 0},
                    TimeCase{"yesterday", kStamp, nullptr, 0, 0, 0, 0, 0, 0, 0, 0},
                    TimeCase{"\t2024", "%Y", nullptr, 0, 0, 0, 0, 0, 0, 0, 0},
                    TimeCase{"", kStamp, nullptr, 0, 0, 0, 0, 0, 0, 0, 0}));

TEST(TimeText, OtherDirectivesGoToThePlatform) {
    struct tm tm = {};
    const char* const rest = cm_strptime("29 Feb 2024 11:05 PM", "%d %b %Y %I:%M %p", &tm);
    ASSERT_NE(rest, nullptr);
    EXPECT_STREQ(rest, "");
    EXPECT_EQ(tm.tm_mon, 1);
    EXPECT_EQ(tm.tm_hour, 23);
}

// The platform's own function is the model for every valid time stamp.
TEST(TimeText, AgreesWithThePlatformOnEveryDayOfManyYears) {
    struct tm day = {};
    day.tm_year = -300;
    day.tm_mday = 1;
    day.tm_hour = 12;
    const time_t first = timegm(&day);
    for (int number = 0; number < 366 * 900; number += 7) {
        const time_t when = first + static_cast<time_t>(number) * 86400;
        gmtime_r(&when, &day);
        char text[32];
        strftime(text, sizeof text, kStamp, &day);
        struct tm ours = untouched();
        ASSERT_NE(cm_strptime(text, kStamp, &ours), nullptr) << text;
        ASSERT_EQ(ours.tm_wday, day.tm_wday) << text;
        ASSERT_EQ(ours.tm_yday, day.tm_yday) << text;
    }
}

TEST(TextFunctions, SkipAndCropTreatAllWhiteSpace) {
    char text[] = " \t\r\n\v\f x y ";
    EXPECT_STREQ(strskp(text), "x y ");
    char blank[] = "  ";
    EXPECT_STREQ(strskp(blank), "");
    EXPECT_EQ(strskp(nullptr), nullptr);
    EXPECT_STREQ(strcrop(" x y \t\r\n\v\f"), " x y");
    EXPECT_STREQ(strcrop(" \t "), "");
    EXPECT_EQ(strcrop(nullptr), nullptr);
    // A byte above 127 is no white space and no index into a table.
    EXPECT_STREQ(strcrop("\xA0\xFF"), "\xA0\xFF");
}

TEST(TextFunctions, CropReturnsOneBufferAndCutsWhatDoesNotFitIt) {
    char* const first = strcrop("first");
    char* const second = strcrop("second");
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "second");
    EXPECT_EQ(std::string(strcrop(std::string(5000, 'x').c_str())), std::string(1024, 'x'));
}

} // namespace
