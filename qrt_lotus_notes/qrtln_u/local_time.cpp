#include "qrt_lotus_notes/qrtln_u/local_time.h"

#include <algorithm>

namespace {

bool haveEqualFields(const struct tm& first, const struct tm& second) {
    return first.tm_year == second.tm_year && first.tm_mon == second.tm_mon &&
           first.tm_mday == second.tm_mday && first.tm_hour == second.tm_hour &&
           first.tm_min == second.tm_min && first.tm_sec == second.tm_sec;
}

// The moment at which a clock of Greenwich shows the fields.
time_t asUtc(struct tm fields) {
    return timegm(&fields);
}

// The moment that the fields mean by the clock as it is set at another moment.
time_t readByClockAt(time_t utc, time_t clock) {
    struct tm shown = {};
    return localFieldsOf(clock, shown) ? utc - shown.tm_gmtoff : utc;
}

} // namespace

bool localFieldsOf(time_t moment, struct tm& fields) {
    return localtime_r(&moment, &fields) != nullptr;
}

bool isCalendarTime(const struct tm& fields) {
    struct tm normal = fields;
    timegm(&normal);
    return haveEqualFields(normal, fields);
}

// Each setting that the clock has around the time is tried. mktime would settle for one of two, and
// knows repeated hours only where daylight saving makes them: a zone that moved has them too.
std::vector<time_t> momentsShownAs(const struct tm& fields) {
    constexpr time_t kFarthestOffset = 26 * 3600L; // between a zone's local time and UTC
    constexpr time_t kStep = 15 * 60;              // no offset lasts shorter than this
    tzset();
    const time_t utc = asUtc(fields);
    std::vector<time_t> moments;
    for (time_t at = utc - kFarthestOffset; at <= utc + kFarthestOffset; at += kStep) {
        const time_t candidate = readByClockAt(utc, at);
        struct tm shown = {};
        if (localFieldsOf(candidate, shown) && haveEqualFields(shown, fields) &&
            std::find(moments.begin(), moments.end(), candidate) == moments.end()) {
            moments.push_back(candidate);
        }
    }
    std::sort(moments.begin(), moments.end());
    return moments;
}

time_t earliestMomentOf(const struct tm& fields) {
    const time_t utc = asUtc(fields);
    struct tm normal = fields;
    timegm(&normal);
    const std::vector<time_t> moments = momentsShownAs(normal);
    if (!moments.empty()) {
        return moments.front();
    }
    // A reading of a skipped time by the one clock lies where the other is in force, so that each
    // leads to the other.
    const time_t reading = readByClockAt(utc, utc);
    return std::min(reading, readByClockAt(utc, reading));
}
