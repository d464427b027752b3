// Parsing of time texts.
#pragma once

#include <ctime>

// Parses buf by a format with the directives of POSIX strptime. Returns the first character of buf
// that was not consumed, or NULL when the text does not match. Of *tm only the fields that the
// format names are written, also before a mismatch; tm_wday and tm_yday are completed when year,
// month and day of the month were all given. %Y %m %d %H %M %S are the module's own, free of the
// locale: blanks before a number are skipped, and the number ends at its digit limit or where any
// further digit would exceed its range. A format with any other directive goes to the platform.
char* cm_strptime(const char* buf, const char* format, struct tm* tm);
