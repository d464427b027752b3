#include "common/cm_strptime.h"

#include <cctype>
#include <cstring>

namespace {

struct NumberDirective {
    char letter;
    int digits; // at most
    int least;
    int most;
    int offset; // added to the value that is stored
    int tm::*field;
};

constexpr NumberDirective kDirectives[] = {
    {'Y', 4, 0, 9999, -1900, &tm::tm_year}, {'m', 2, 1, 12, -1, &tm::tm_mon},
    {'d', 2, 1, 31, 0, &tm::tm_mday},       {'H', 2, 0, 23, 0, &tm::tm_hour},
    {'M', 2, 0, 59, 0, &tm::tm_min},        {'S', 2, 0, 61, 0, &tm::tm_sec},
};

const NumberDirective* directiveOf(char letter) {
    for (const NumberDirective& directive : kDirectives) {
        if (directive.letter == letter) {
            return &directive;
        }
    }
    return nullptr;
}

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool hasOtherDirective(const char* format) {
    for (; *format != '\0'; ++format) {
        if (*format == '%') {
            ++format;
            if (*format != '%' && directiveOf(*format) == nullptr) {
                return true;
            }
        }
    }
    return false;
}

// Reads one number; returns the character after it, or NULL.
const char* readNumber(const char* text, const NumberDirective& directive, int& value) {
    while (*text == ' ') {
        ++text;
    }
    if (!isDigit(*text)) {
        return nullptr;
    }
    value = 0;
    int digits = 0;
    do {
        value = value * 10 + (*text++ - '0');
    } while (++digits < directive.digits && value * 10 <= directive.most && isDigit(*text));
    return value >= directive.least && value <= directive.most ? text : nullptr;
}

bool isLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Fills in the day of the week and of the year. A day past its month's end counts on from there.
void completeDays(struct tm& tm) {
    constexpr int kDaysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    const int year = tm.tm_year + 1900;
    const bool leapDayPassed = tm.tm_mon > 1 && isLeapYear(year);
    tm.tm_yday = kDaysBefore[tm.tm_mon] + tm.tm_mday - 1 + (leapDayPassed ? 1 : 0);
    // 1 January of the year 0 of this calendar was a Saturday (6).
    const int past = year == 0 ? 0 : year - 1;
    const int leapDays = year == 0 ? 0 : past / 4 - past / 100 + past / 400 + 1;
    tm.tm_wday = (6 + year * 365 + leapDays + tm.tm_yday) % 7;
}

} // namespace

char* cm_strptime(const char* buf, const char* format, struct tm* tm) {
    if (hasOtherDirective(format)) {
        return strptime(buf, format, tm);
    }
    bool hasYear = false, hasMonth = false, hasDay = false;
    for (; *format != '\0'; ++format) {
        if (isSpace(*format)) {
            while (isSpace(*buf)) {
                ++buf;
            }
            continue;
        }
        if (*format != '%' || *++format == '%') {
            if (*buf != *format) {
                return nullptr;
            }
            ++buf;
            continue;
        }
        const NumberDirective& directive = *directiveOf(*format);
        int value = 0;
        buf = readNumber(buf, directive, value);
        if (buf == nullptr) {
            return nullptr;
        }
        tm->*directive.field = value + directive.offset;
        hasYear |= directive.letter == 'Y';
        hasMonth |= directive.letter == 'm';
        hasDay |= directive.letter == 'd';
    }
    if (hasYear && hasMonth && hasDay) {
        completeDays(*tm);
    }
    return const_cast<char*>(buf);
}
