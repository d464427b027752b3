// The start of a base backup in the form that the module takes.
#pragma once

#include <ctime>
#include <string>

namespace qrtln {

// The value of SNC_TIME: "YYYYMMDDhhmmss" in local time. The module reads it back without knowing
// whether daylight saving applied; where the clock shows `time` twice, the text is of an earlier
// time, so that it is never read as a later one. Throws ClientError(failed) for a time that has no
// date of four-digit year.
std::string since_time_text(std::time_t time);

} // namespace qrtln
