// From the platform's times to the server's, by way of text as its settings have it.
#pragma once

#include <cstddef>
#include <ctime>

#include "notes_api/types.h"

// TFMT: full date, full time, the zone never shown, date and time both.
inline constexpr TFMT kDateAndTime = {0, 0, 2, 2};

// A time's text with its NUL.
using TimeText = char[81];

// The server's settings with the day before the month before the year. REQUIRES: the runtime is up.
INTLFORMAT dayMonthYearSettings();

// Converts a time, which the server reads as local time. False (logged, in the name of `function`)
// when it has no date or the server does not take it. REQUIRES: the runtime is up.
bool convertTime(const char* function, const INTLFORMAT& intl, time_t time, TIMEDATE& timedate);

// Whether the server's time is this very moment, to the hundredth.
bool isSameMoment(const TIMEDATE& timedate, time_t time);

// Logs about a database that the server read a text as another moment than was meant, as one in
// another time zone does; nothing when it did not.
void logOtherMoment(const char* cpNotesDbFile, const TIMEDATE& timedate, time_t meant);
