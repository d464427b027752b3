// What the module tells during a backup, line by line, kept as facts for the steps to read: its
// protocol and its trace come while one of its calls is running, and about the item of that call.
#pragma once

#include "client/module/told.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace qrtln {

struct ModuleReport {
    // `base_started` is when the base of a differential backup began, in seconds since 1970.
    explicit ModuleReport(std::int64_t start_of_base) : base_started(start_of_base) {}

    // A line of the protocol.
    void read_log(const std::string& line);
    // The same of the operation that takes the logs alone.
    void read_log_phase(const std::string& line);
    // A line of the trace.
    void read_trace(const std::string& line);
    // The same of the operation that takes the logs alone.
    void read_server_status(const std::string& line);
    // To be called when the module is done with a database: a question about it that it began and
    // never put makes that an unchecked item.
    void note_unput_question();
    // Nothing is known of the copy that is prepared next.
    void forget_copy();

    std::int64_t base_started = 0;

    // Of the start.
    bool archiving_in_progress = false; // another session was open, which this start ended
    std::string logging_style;          // where the server has no logs to archive
    std::string index_begun_anew;       // why no level may build on the index of databases

    // About the item that comes next, or since the last one.
    std::optional<ServerStatus> server_status; // the last failure of the server's
    std::vector<UncheckedItem> unchecked;
    std::string last_error_line;

    // About the copy of the item.
    std::string incomplete_copy;
    bool file_short = false;
    std::string dbiid;

    // About the whole.
    std::map<std::string, LogIdentity> logs; // announced and not yet handed out
    bool logs_not_listed = false;            // the server did not list its logs
    std::vector<LeftOut> left_out;
    UnmarkedLogs unmarked;
    int index_entries = 0;
    std::string index_entry_lost;

  private:
    void note_other_moment(const OtherMoment& other);
    void note_index(IndexEvent event, const std::string& line);

    std::string m_announced_log;   // the newest of `logs`
    std::string m_looked_at;       // the database, as the module shows it
    bool m_question_begun = false; // whether it was modified; not put yet
    bool m_read_earlier = false;   // the time of the base, by the server
};

} // namespace qrtln
