#include "client/module/told_backup.h"

#include "client/base/text.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <string_view>

namespace qrtln {

ModifiedTest parse_modified_test(const std::string& line) {
    using Step = ModifiedTest::Step;
    constexpr std::string_view before = "isDatabaseLogged(): call NSFDbOpen( ";
    constexpr std::string_view after = ", ..)";
    if (line.starts_with(before) && line.ends_with(after))
        return {Step::database,
                line.substr(before.size(), line.size() - before.size() - after.size())};
    if (line.starts_with("ConvertTextToTIMEDATE("))
        return {Step::begun, {}};
    return {line.starts_with("date: ") ? Step::put : Step::none, {}};
}

namespace {

constexpr std::string_view source_database = "Src Db: ";

// Takes a number off the front of a text, and what must follow it.
bool take_number(std::string_view& text, std::int64_t& number, std::string_view after) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (error != std::errc() || !text.starts_with(after))
        return false;
    text.remove_prefix(after.size());
    return true;
}

} // namespace

std::optional<OtherMoment> parse_other_moment(const std::string& line) {
    constexpr std::string_view asked = " is asked since another time: the server reads ";
    std::size_t at = line.rfind(asked); // a path before it may hold the same words
    if (!line.starts_with(source_database) || at == std::string::npos)
        return std::nullopt;
    std::string_view times = std::string_view(line).substr(at + asked.size());
    OtherMoment other;
    other.path = line.substr(source_database.size(), at - source_database.size());
    if (!take_number(times, other.read, ", meant is ") ||
        !take_number(times, other.meant, " (seconds since 1970)") || !times.empty())
        return std::nullopt;
    return other;
}

std::string describe(const OtherMoment& other) {
    return fmt::format("the server reads {} as {}", utc_time(other.meant), utc_time(other.read));
}

namespace {

// The module compares the whole status here, with the flags that a server may set in it.
bool says_not_modified(std::string_view text) {
    constexpr std::string_view failure = " NSFDbGetModifiedNoteTable() returned error ";
    constexpr std::int64_t status_number_mask = 0x3fff;
    constexpr std::int64_t no_note_modified = 572;
    std::size_t at = text.rfind(failure);
    if (at == std::string_view::npos)
        return false;
    text.remove_prefix(at + failure.size());
    text.remove_prefix(std::min(text.find('(') + 1, text.size())); // behind the hexadecimal form
    std::int64_t status = 0;
    return take_number(text, status, "): ") && (status & status_number_mask) == no_note_modified;
}

} // namespace

std::optional<UncheckedItem> parse_unchecked_item(const std::string& line) {
    constexpr std::string_view unchecked = "Checking if file needs to be backed up failure: ";
    std::string_view text = line;
    if (text.starts_with(unchecked))
        return UncheckedItem{std::string(text.substr(unchecked.size())),
                             "the module could not tell whether it needs to be backed up", false};
    // These name no database: the time itself could not be used.
    if (text.starts_with("ConvertTextToTIMEDATE() failed, got error ") ||
        text.starts_with("isNotesDbModified: the time "))
        return UncheckedItem{{}, line, true};
    if (!text.starts_with(source_database) || says_not_modified(text))
        return std::nullopt;
    text.remove_prefix(source_database.size());
    for (std::string_view failure : {" NSFDbGetModifiedNoteTable() returned error ", " got error ",
                                     " has a name that is not valid for the server"})
        if (std::size_t at = text.rfind(failure); at != std::string_view::npos)
            return UncheckedItem{std::string(text.substr(0, at)),
                                 "the module could not tell whether it was modified:" +
                                     std::string(text.substr(at)),
                                 true};
    return std::nullopt;
}

std::optional<LeftOut> parse_left_out(const std::string& line) {
    struct Form {
        std::string_view before; // the path, and after the name of a function
        std::string_view after;
        const char* reason;
    };
    static constexpr Form forms[] = {
        {"(): directory [", "] cannot be read, its files are left out (",
         "the module cannot read the folder, nothing below it was saved"},
        {"(): directory [", "] could not be read to its end (",
         "the module could not read the folder to its end"},
        {"(): closing directory [", "] failed, what follows it cannot be read (",
         "the module could not read on after it"},
    };
    for (const Form& form : forms) {
        std::size_t start = line.find(form.before);
        std::size_t end = line.rfind(form.after);
        if (start == std::string::npos || end == std::string::npos || line.find(' ') < start ||
            end < start + form.before.size())
            continue;
        start += form.before.size();
        LeftOut left_out{line.substr(start, end - start), form.reason};
        if (left_out.path.size() > 1 && left_out.path.ends_with('/'))
            left_out.path.pop_back();
        if (left_out.path.ends_with("/lost+found"))
            return std::nullopt;
        // "NUMBER): TEXT"
        if (std::size_t text = line.find("): ", end); text != std::string::npos)
            left_out.reason += line.substr(text + 1);
        return left_out;
    }
    return std::nullopt;
}

bool says_changes_incomplete(const std::string& line) {
    return line.find("(): NSFBackupEndApplyChangeInfo LN C API call failed: ") != std::string::npos;
}

bool says_file_short(const std::string& line) {
    return line.starts_with("Database file [") &&
           line.ends_with("] is shorter than the size to copy");
}

IndexEvent parse_index_event(const std::string& line) {
    if (line.starts_with("QRTLN_InitBackup(): index file ["))
        return line.ends_with("a new one is begun")                         ? IndexEvent::begun_anew
               : line.ends_with("this backup has no entries and sets none") ? IndexEvent::unreadable
                                                                            : IndexEvent::none;
    constexpr std::string_view beginning = "QRTLN_IsBackupNeeded: ";
    if (!line.starts_with(beginning))
        return IndexEvent::none;
    std::string_view text = std::string_view(line).substr(beginning.size());
    if (text.starts_with("Update index file "))
        return IndexEvent::entry;
    if (text.starts_with('[') && text.ends_with("gets no entry in the index"))
        return IndexEvent::no_entry;
    if ((text.starts_with("fopen(") || text.starts_with("writing ")) &&
        text.find(" failed with errno (") != std::string_view::npos)
        return IndexEvent::entry_lost;
    return IndexEvent::none;
}

} // namespace qrtln
