#include "client/backup/module_report.h"

#include "client/base/output.h"

#include <fmt/format.h>
#include <utility>

namespace qrtln {

void ModuleReport::read_log_phase(const std::string& line) {
    if (std::optional<AnnouncedLog> log = parse_log_announcement(line))
        logs[m_announced_log = log->path] = log->identity;
    if (auto log = logs.find(m_announced_log); log != logs.end())
        if (std::string id = parse_whole_identity(line, log->second.number); !id.empty())
            log->second.whole_id = id;
    unmarked.read(line);
    if (says_logs_not_listed(line))
        logs_not_listed = true;
}

void ModuleReport::read_log(const std::string& line) {
    read_log_phase(line);
    if (std::optional<std::string> error = parse_error_line(line))
        last_error_line = *error;
    if (std::optional<UncheckedItem> item = parse_unchecked_item(line)) {
        if (!item->modified_since && !last_error_line.empty())
            item->problem += ": " + last_error_line;
        last_error_line.clear();
        m_question_begun = false; // this line has the reason
        if (item->path.empty())
            item->path = m_looked_at;
        unchecked.push_back(std::move(*item));
    }
    if (std::optional<OtherMoment> other = parse_other_moment(line))
        note_other_moment(*other);
    if (std::optional<LeftOut> folder = parse_left_out(line))
        left_out.push_back(std::move(*folder));
    if (says_changes_incomplete(line))
        incomplete_copy = line;
    if (says_file_short(line))
        file_short = true;
    if (std::string style = logging_without_archive(line); !style.empty())
        logging_style = style;
    if (says_archiving_in_progress(line))
        archiving_in_progress = true;
    note_index(parse_index_event(line), line);
}

void ModuleReport::note_index(IndexEvent event, const std::string& line) {
    switch (event) {
    case IndexEvent::none:
        break;
    case IndexEvent::begun_anew:
        index_begun_anew = line;
        break;
    case IndexEvent::entry:
        ++index_entries;
        break;
    case IndexEvent::no_entry:
        --index_entries;
        break;
    case IndexEvent::entry_lost:
        index_entry_lost = line;
        break;
    case IndexEvent::unreadable:
        index_begun_anew = line; // no level may build on it
        index_entry_lost = line; // and it is not complete after this one
        break;
    }
}

void ModuleReport::read_server_status(const std::string& line) {
    if (std::optional<ServerStatus> status = parse_server_status(line))
        server_status = std::move(status);
}

void ModuleReport::read_trace(const std::string& line) {
    read_server_status(line);
    if (std::string instance = parse_prepared_dbiid(line); !instance.empty())
        dbiid = instance;
    ModifiedTest test = parse_modified_test(line);
    switch (test.step) {
    case ModifiedTest::Step::none:
        break;
    case ModifiedTest::Step::database:
        note_unput_question();
        m_looked_at = test.path;
        break;
    case ModifiedTest::Step::begun:
        m_question_begun = true;
        break;
    case ModifiedTest::Step::put:
        m_question_begun = false;
        break;
    }
}

// The module was about to ask whether a database was modified, and went on without having done so.
void ModuleReport::note_unput_question() {
    if (std::exchange(m_question_begun, false))
        unchecked.push_back({m_looked_at,
                             "the module could not tell whether it was modified: the server did "
                             "not write the time of the base",
                             true});
}

// Of what changed between the start of the base and a later moment the server does not tell.
void ModuleReport::note_other_moment(const OtherMoment& other) {
    if (other.read > base_started)
        unchecked.push_back(
            {other.path,
             fmt::format("the module could not tell whether it was modified since its base: {}; {}",
                         describe(other), other_moment_hint),
             true, true});
    else if (!std::exchange(m_read_earlier, true))
        print_message(fmt::format(
            "warning: databases that did not change since the base are saved as well, as {}: {}",
            describe(other), other_moment_hint));
}

void ModuleReport::forget_copy() {
    incomplete_copy.clear();
    file_short = false;
    dbiid.clear();
}

} // namespace qrtln
