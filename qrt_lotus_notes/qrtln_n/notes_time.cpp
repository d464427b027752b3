#include "qrt_lotus_notes/qrtln_n/notes_time.h"

#include "qrt_lotus_notes/qrtln_n/notes_report.h"
#include "qrt_lotus_notes/qrtln_u/local_time.h"

namespace {

// Bits of INTLFORMAT::Flags: the order of a date's parts.
constexpr WORD kMonthDayYear = 0x0020;
constexpr WORD kDayMonthYear = 0x0040;
constexpr WORD kYearMonthDay = 0x0080;

constexpr time_t kSecondsPerDay = 24 * 3600L;
constexpr time_t kJulianDayOf1970 = 2440588;
constexpr DWORD kJulianDayMask = 0xFFFFFF;

// Writes a time as the settings separate its parts. False when there is no local time for it.
bool formatTime(const INTLFORMAT& intl, time_t time, TimeText& text) {
    struct tm local = {};
    if (!localFieldsOf(time, local)) {
        return false;
    }
    // The separators fill their fields or end with a NUL.
    const int width = sizeof intl.DateString;
    return formatText(text, sizeof text, "%02d%.*s%02d%.*s%4d %02d%.*s%02d%.*s%02d", local.tm_mday,
                      width, intl.DateString, local.tm_mon + 1, width, intl.DateString,
                      local.tm_year + 1900, local.tm_hour, width, intl.TimeString, local.tm_min,
                      width, intl.TimeString, local.tm_sec);
}

} // namespace

INTLFORMAT dayMonthYearSettings() {
    INTLFORMAT intl = {};
    notes_api.OSGetIntlSettings(&intl, sizeof intl);
    intl.Flags |= kDayMonthYear;
    intl.Flags &= static_cast<WORD>(~(kMonthDayYear | kYearMonthDay));
    return intl;
}

bool convertTime(const char* function, const INTLFORMAT& intl, time_t time, TIMEDATE& timedate) {
    TimeText text = "";
    if (!formatTime(intl, time, text)) {
        DB_LogExt("%s: the time %lld has no date", function, static_cast<long long>(time));
        return false;
    }
    DB_TraceExt("ConvertTextToTIMEDATE(%s)", text);
    char* cpText = text; // the call moves it
    const STATUS status = notes_api.ConvertTextToTIMEDATE(
        &intl, &kDateAndTime, &cpText, static_cast<WORD>(std::strlen(text)), &timedate);
    if (status != kNotesNoError) {
        DB_LogExt("ConvertTextToTIMEDATE() failed, got error %0x (%d): %s",
                  static_cast<unsigned>(status), status, getLotusNotesApiError(status, FALSE));
        return false;
    }
    return true;
}

bool isSameMoment(const TIMEDATE& timedate, time_t time) {
    const time_t days = time >= 0 ? time / kSecondsPerDay : -((-time - 1) / kSecondsPerDay) - 1;
    const time_t hundredths = (time - days * kSecondsPerDay) * 100;
    return timedate.Innards[0] == static_cast<DWORD>(hundredths) &&
           (timedate.Innards[1] & kJulianDayMask) == static_cast<DWORD>(days + kJulianDayOf1970);
}

void logOtherMoment(const char* cpNotesDbFile, const TIMEDATE& timedate, time_t meant) {
    if (isSameMoment(timedate, meant)) {
        return;
    }
    const time_t days =
        static_cast<time_t>(timedate.Innards[1] & kJulianDayMask) - kJulianDayOf1970;
    const time_t read = days * kSecondsPerDay + static_cast<time_t>(timedate.Innards[0] / 100);
    DB_LogExt("Src Db: %s is asked since another time: the server reads %lld, meant is %lld "
              "(seconds since 1970)",
              getUTF8FileName(cpNotesDbFile), static_cast<long long>(read),
              static_cast<long long>(meant));
}
