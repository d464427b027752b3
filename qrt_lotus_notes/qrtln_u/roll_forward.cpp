#include "qrt_lotus_notes/qrtln_u/roll_forward.h"

#include <cstring>
#include <vector>

#include "qrt_lotus_notes/qrtln_u/local_time.h"
#include "qrt_lotus_notes/qrtln_u/messages.h"

namespace {

constexpr std::size_t kMomentDigits = 14;

constexpr RecoveryChoices kRollForward = {
    .bSearchesForDatabases = TRUE,
    .bSelectsWhatIsMissing = TRUE,
    .bFindsPending = TRUE,
    .bExcludesExactly = TRUE,
    .bCreatesDirectories = TRUE,
    .bKeepsUnplaced = TRUE,
    .bBringsBackOnline = TRUE,
    .bTellsOutcome = TRUE,
    .bToMoment = FALSE,
    .tMoment = 0,
};

int numberAt(const char* digits, int count) {
    int number = 0;
    for (int i = 0; i < count; ++i) {
        number = number * 10 + (digits[i] - '0');
    }
    return number;
}

struct tm fieldsOf(const char* digits) {
    struct tm fields = {};
    fields.tm_year = numberAt(digits, 4) - 1900;
    fields.tm_mon = numberAt(digits + 4, 2) - 1;
    fields.tm_mday = numberAt(digits + 6, 2);
    fields.tm_hour = numberAt(digits + 8, 2);
    fields.tm_min = numberAt(digits + 10, 2);
    fields.tm_sec = numberAt(digits + 12, 2);
    return fields;
}

bool tells() {
    return g_sQRTLN_Global.sRecoveryChoices.bTellsOutcome != FALSE;
}

bool refuse(const char* value, const char* why) {
    DB_ErrHandler(0, kErrorKindNone, "ROLLFORWARD=%s: %s", value, why);
    return false;
}

bool readMoment(const char* value, time_t& moment) {
    const struct tm fields = fieldsOf(value);
    if (!isCalendarTime(fields)) {
        return refuse(value, "there is no such date or time");
    }
    const std::vector<time_t> moments = momentsShownAs(fields);
    if (moments.empty()) {
        return refuse(value, "the local clock skips this time, give one that it showed");
    }
    if (moments.size() > 1) {
        return refuse(value, "the local clock shows this time more than once, give one before or "
                             "after the repeated hour");
    }
    moment = moments.front();
    return true;
}

} // namespace

bool readRollForward(const char* value, RecoveryChoices& choices) {
    if (std::strcmp(value, "YES") == 0) {
        choices = kRollForward;
        return true;
    }
    if (std::strlen(value) != kMomentDigits || std::strspn(value, "0123456789") != kMomentDigits) {
        return refuse(value, "neither YES nor a local time of fourteen digits, YYYYMMDDhhmmss");
    }
    time_t moment = 0;
    if (!readMoment(value, moment)) {
        return false;
    }
    choices = kRollForward;
    choices.bToMoment = TRUE;
    choices.tMoment = moment;
    return true;
}

void tellRecovered(const char* cpDatabase) {
    if (tells()) {
        DB_LogExt("ROLLFORWARD: recovered [%s]", cpDatabase);
    }
}

void tellNotRecovered(const char* cpDatabase, const char* why) {
    if (tells()) {
        DB_LogExt("ROLLFORWARD: NOT recovered [%s]: %s", cpDatabase, why);
    }
}

void tellUncertain(const char* cpDatabase, const char* why) {
    if (tells()) {
        DB_LogExt("ROLLFORWARD: perhaps recovered [%s]: %s", cpDatabase, why);
    }
}

void tellMissingLog(const char* cpLog) {
    if (tells()) {
        DB_LogExt("ROLLFORWARD: missing transaction log [%s]", cpLog);
    }
}
