// Times, and how the server writes them.
#include "notes_simulator/base/times.h"
#include "notes_simulator/api/call.h"
#include "notes_simulator/notes_simulator.h"

#include <algorithm>
#include <cstring>

using namespace notes_sim;

namespace {

constexpr WORD kMonthDayYear = 0x0020;
constexpr WORD kDayMonthYear = 0x0040;
constexpr WORD kYearMonthDay = 0x0080;

static_assert(sizeof(INTLFORMAT) == 140);
static_assert(sizeof(UNIVERSALNOTEID) == 16);
static_assert(sizeof(TFMT) == 4);

void setField(char* field, std::size_t size, const std::string& text) {
    std::memset(field, 0, size);
    text.copy(field, size - 1);
}

INTLFORMAT serverSettings() {
    INTLFORMAT format = {};
    std::string order = "MDY";
    std::string date = "/";
    std::string time = ":";
    if (const auto& server = process().server) {
        order = server->ini.get("SimDateOrder").value_or(order);
        date = server->ini.get("SimDateSeparator").value_or(date);
        time = server->ini.get("SimTimeSeparator").value_or(time);
    }
    format.Flags = kMonthDayYear;
    if (order == "DMY") {
        format.Flags = kDayMonthYear;
    } else if (order == "YMD") {
        format.Flags = kYearMonthDay;
    }
    format.CurrencyDigits = 2;
    format.Length = sizeof format;
    setField(format.AMString, sizeof format.AMString, "AM");
    setField(format.PMString, sizeof format.PMString, "PM");
    setField(format.CurrencyString, sizeof format.CurrencyString, "$");
    setField(format.ThousandString, sizeof format.ThousandString, ",");
    setField(format.DecimalString, sizeof format.DecimalString, ".");
    setField(format.DateString, sizeof format.DateString, date);
    setField(format.TimeString, sizeof format.TimeString, time);
    setField(format.YesterdayString, sizeof format.YesterdayString, "Yesterday");
    setField(format.TodayString, sizeof format.TodayString, "Today");
    setField(format.TomorrowString, sizeof format.TomorrowString, "Tomorrow");
    return format;
}

std::string field(const char* text, std::size_t size) {
    return {text, ::strnlen(text, size)};
}

DateFormat dateFormat(const void* settings) {
    DateFormat format;
    if (const auto& server = process().server) {
        format.zone = server->zone;
    }
    if (settings == nullptr) {
        return format;
    }
    INTLFORMAT intl = {};
    std::memcpy(&intl, settings, sizeof intl);
    if ((intl.Flags & kDayMonthYear) != 0) {
        format.order = DateFormat::Order::kDayMonthYear;
    } else if ((intl.Flags & kYearMonthDay) != 0) {
        format.order = DateFormat::Order::kYearMonthDay;
    }
    format.dateSeparator = field(intl.DateString, sizeof intl.DateString);
    format.timeSeparator = field(intl.TimeString, sizeof intl.TimeString);
    return format;
}

} // namespace

void OSGetIntlSettings(INTLFORMAT* retIntlFormat, WORD BufferSize) {
    valueCall("OSGetIntlSettings", std::to_string(BufferSize), 0, [&](ApiCall&) {
        require(retIntlFormat);
        const INTLFORMAT format = serverSettings();
        std::memcpy(retIntlFormat, &format, std::min<std::size_t>(BufferSize, sizeof format));
        return 0;
    });
}

STATUS ConvertTextToTIMEDATE(const void* IntlFormat, const void*, char** Text, WORD MaxLength,
                             TIMEDATE* retTIMEDATE) {
    const std::string text = Text == nullptr || *Text == nullptr ? "" : field(*Text, MaxLength);
    return statusCall("ConvertTextToTIMEDATE", quoted(text.c_str()), [&](ApiCall& call) -> Status {
        require(Text);
        require(*Text);
        require(retTIMEDATE);
        std::size_t used = 0;
        const auto time = parseTime(text, dateFormat(IntlFormat), &used);
        if (!time) {
            throw StatusError(kBadTimeText, text);
        }
        const TimeWords words = toTimeWords(*time);
        *retTIMEDATE = {{words.ticks, words.day}};
        *Text += used;
        call.output("time", displayTime(*time).c_str());
        return kOk;
    });
}

STATUS ConvertTIMEDATEToText(const void* IntlFormat, const void*, const TIMEDATE* InputTime,
                             char* retTextBuffer, WORD TextBufferLength, WORD* retTextLength) {
    return statusCall("ConvertTIMEDATEToText", "", [&](ApiCall& call) -> Status {
        require(InputTime);
        require(retTextBuffer);
        require(retTextLength);
        *retTextLength = 0;
        const std::int64_t time = fromTimeWords({InputTime->Innards[0], InputTime->Innards[1]});
        const std::string text = formatTime(time, dateFormat(IntlFormat));
        if (text.size() > TextBufferLength) {
            throw StatusError(kInvalidArgument, "buffer of " + std::to_string(TextBufferLength));
        }
        text.copy(retTextBuffer, text.size()); // without a terminator
        *retTextLength = static_cast<WORD>(text.size());
        call.output("text", text.c_str());
        return kOk;
    });
}

void TimeConstant(WORD TimeConstantType, TIMEDATE* td) {
    valueCall("TimeConstant", std::to_string(TimeConstantType), 0, [&](ApiCall&) {
        require(td);
        if (TimeConstantType > 2) {
            throw StatusError(kInvalidArgument, "");
        }
        *td = TimeConstantType == 1 ? TIMEDATE{{0xFFFFFFFF, 0x00FFFFFF}} : TIMEDATE{{0, 0}};
        return 0;
    });
}
