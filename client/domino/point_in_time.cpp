#include "client/domino/point_in_time.h"

#include "client/base/error.h"
#include "client/base/text.h"

#include <fmt/format.h>
#include <string_view>
#include <vector>

namespace qrtln {

namespace {

[[noreturn]] void refuse_time(const std::string& text, const std::string& option,
                              const std::string& reason, const std::string& hint = {}) {
    throw ClientError(
        ExitCode::usage, fmt::format("{} '{}': {}", option, for_terminal(text), reason),
        !hint.empty() ? hint
                      : "give the time as \"2026-11-21T02:49:23Z\", with +01:00 or the like for "
                        "another zone than UTC, as local time \"2026-11-21 02:49:23\" or "
                        "\"2026-11-21 02:49\", or as in a set's name, 20261121T024923Z");
}

// Reads a text from its start. What does not fit is remembered.
class Reader {
  public:
    explicit Reader(std::string_view text) : m_rest(text) {}
    int number(int digits) {
        int value = 0;
        for (; digits > 0; --digits)
            value = value * 10 + (mark("0123456789") - '0');
        return value;
    }
    // One of these characters; 0 for another.
    char mark(std::string_view allowed) {
        m_good = m_good && next_is(allowed);
        if (!m_good)
            return 0;
        char found = m_rest.front();
        m_rest.remove_prefix(1);
        return found;
    }
    bool next_is(std::string_view allowed) const {
        return !m_rest.empty() && allowed.find(m_rest.front()) != std::string_view::npos;
    }
    bool at_end() const { return m_rest.empty(); }
    bool read_all() const { return m_good && m_rest.empty(); }

  private:
    std::string_view m_rest;
    bool m_good = true;
};

// A time as it is written.
struct Written {
    std::tm fields{};
    std::optional<int> east; // of UTC, in seconds; nothing: local
    bool as_in_a_set = false;
    bool fraction = false;
    bool zone_exists = true;
};

std::optional<Written> read_time_of_set(const std::string& text) {
    Reader reader(text);
    Written written;
    written.as_in_a_set = true;
    written.east = 0;
    written.fields.tm_year = reader.number(4) - 1900;
    written.fields.tm_mon = reader.number(2) - 1;
    written.fields.tm_mday = reader.number(2);
    reader.mark("T");
    written.fields.tm_hour = reader.number(2);
    written.fields.tm_min = reader.number(2);
    written.fields.tm_sec = reader.number(2);
    reader.mark("Z");
    return reader.read_all() ? std::optional(written) : std::nullopt;
}

std::optional<Written> read_time(const std::string& text) {
    Reader reader(text);
    Written written;
    written.fields.tm_year = reader.number(4) - 1900;
    reader.mark("-");
    written.fields.tm_mon = reader.number(2) - 1;
    reader.mark("-");
    written.fields.tm_mday = reader.number(2);
    reader.mark("Tt ");
    written.fields.tm_hour = reader.number(2);
    reader.mark(":");
    written.fields.tm_min = reader.number(2);
    if (reader.next_is(":")) {
        reader.mark(":");
        written.fields.tm_sec = reader.number(2);
        written.fraction = reader.next_is(".,");
    }
    if (written.fraction)
        return written;
    if (reader.next_is("Zz")) {
        reader.mark("Zz");
        written.east = 0;
    } else if (!reader.at_end()) {
        int sign = reader.mark("+-") == '-' ? -1 : 1;
        int hours = reader.number(2);
        reader.mark(":");
        int minutes = reader.number(2);
        written.east = sign * (hours * 3600 + minutes * 60);
        written.zone_exists = hours < 24 && minutes < 60;
    }
    return reader.read_all() ? std::optional(written) : std::nullopt;
}

std::time_t read_local(const std::string& text, const std::string& option, const std::tm& fields) {
    std::vector<std::time_t> times = times_shown_as(fields);
    if (times.size() == 1)
        return times.front();
    bool skipped = times.empty();
    if (skipped)
        times = times_beside_skipped(fields);
    refuse_time(text, option,
                skipped ? "the clock skips this time" : "the clock shows this time twice",
                fmt::format("give it with its zone: {}{}", zoned_time(times.front()),
                            times.size() == 1 ? "" : " or " + zoned_time(times.back())));
}

// Whether a calendar has this date, and a day this time.
bool exists_as_written(const std::tm& fields, const std::tm& normal) {
    return normal.tm_year == fields.tm_year && normal.tm_mon == fields.tm_mon &&
           normal.tm_mday == fields.tm_mday && normal.tm_hour == fields.tm_hour &&
           normal.tm_min == fields.tm_min && normal.tm_sec == fields.tm_sec;
}

} // namespace

Moment parse_moment(const std::string& text, const std::string& option) {
    std::optional<Written> written = read_time_of_set(text);
    if (!written)
        written = read_time(text);
    if (!written)
        refuse_time(text, option, "is no time that is understood");
    if (written->fraction)
        refuse_time(text, option, "fractions of a second are not taken");
    std::tm normal = written->fields;
    std::time_t as_utc = ::timegm(&normal);
    if (!exists_as_written(written->fields, normal) || !written->zone_exists)
        refuse_time(text, option, "there is no such time");
    Moment moment;
    moment.time =
        written->east ? as_utc - *written->east : read_local(text, option, written->fields);
    if (written->as_in_a_set)
        moment.set_prefix = text;
    return moment;
}

std::optional<PointInTime> point_in_time(std::time_t time) {
    std::tm local{};
    if (time < 0 || ::localtime_r(&time, &local) == nullptr)
        return std::nullopt;
    PointInTime point;
    point.cut = local.tm_sec != 0;
    point.time = time - local.tm_sec;
    std::optional<std::string> digits = local_digits(point.time);
    if (!digits || !is_shown_once(point.time))
        return std::nullopt;
    point.digits = digits->substr(0, digits->size() - 2);
    return point;
}

PointInTime parse_since(const std::string& text, std::time_t now) {
    Moment moment = parse_moment(text, "--since");
    if (moment.time > now)
        throw ClientError(ExitCode::usage,
                          fmt::format("--since '{}' is in the future: nothing has changed since",
                                      for_terminal(text)));
    std::optional<PointInTime> point = point_in_time(moment.time);
    if (!point && moment.time < 0)
        refuse_time(text, "--since", "the server takes no time before 1970");
    if (!point)
        refuse_time(
            text, "--since",
            "cannot be told to the server, which takes local time: the clock shows it twice",
            "take " + times_shown_once_beside(moment.time));
    return *point;
}

} // namespace qrtln
