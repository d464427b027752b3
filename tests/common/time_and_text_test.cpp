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

TEST(TimeText, IsParsedAsFarAsItMatches) {
    struct Case {
        const char* text;
        const char* format;
        const char* rest;
        int year, month, day, hour, minute, second, weekday, yearday;
    };
    constexpr int no = kUntouched;
    const Case cases[] = {
        {"20240229235959", kStamp, "", 124, 1, 29, 23, 59, 59, 4, 59},
        {"2024 01 15 10 30 00", kStamp, "", 124, 0, 15, 10, 30, 0, 1, 14},
        {"20231231000061xyz", kStamp, "xyz", 123, 11, 31, 0, 0, 61, 0, 364},
        {"00000101000000", kStamp, "", -1900, 0, 1, 0, 0, 0, 6, 0},
        // A number ends where any further digit would exceed its range: month 2, day 9.
        {"2024299", "%Y%m%d", "9", 124, 1, 9, no, no, no, 5, 39},
        // Only what the format names is written, and the days are completed only from all three.
        {"2024-07", "%Y-%m", "", 124, 6, no, no, no, no, no, no},
        {"12:34", "%H:%M", "", no, no, no, 12, 34, no, no, no},
        {"5%  6", "%d%% %H", "", no, no, 5, 6, no, no, no, no},
    };
    for (const Case& expected : cases) {
        SCOPED_TRACE(expected.text);
        struct tm tm = untouched();
        EXPECT_STREQ(cm_strptime(expected.text, expected.format, &tm), expected.rest);
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
    for (const char* text : {"20241301000000", "20240001000000", "20240100000000", "202401010000",
                             "yesterday", "\t20240101000000", ""}) {
        struct tm tm = untouched();
        EXPECT_EQ(cm_strptime(text, kStamp, &tm), nullptr) << text;
    }
}

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

TEST(TextFunctions, SkipAndCropTreatAllWhiteSpaceAndCropCutsWhatDoesNotFitItsBuffer) {
    char text[] = " \t\r\n\v\f x y ";
    EXPECT_STREQ(strskp(text), "x y ");
    EXPECT_EQ(strskp(nullptr), nullptr);
    EXPECT_STREQ(strcrop(" x y \t\r\n\v\f"), " x y");
    EXPECT_STREQ(strcrop(" \t "), "");
    EXPECT_EQ(strcrop(nullptr), nullptr);
    // A byte above 127 is no white space and no index into a table.
    EXPECT_STREQ(strcrop("\xA0\xFF"), "\xA0\xFF");
    EXPECT_EQ(std::string(strcrop(std::string(5000, 'x').c_str())), std::string(1024, 'x'));
}

} // namespace
