// What the module tells of a backup: the items that it chose without being sure, the folders that
// it could not read, the copies that are not whole, and its index of databases.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace qrtln {

// What a line of the trace tells about the test whether a database was modified. The module says
// nothing in its protocol when the server cannot write the time of the question: the question is
// then never put, and the database passed over.
struct ModifiedTest {
    enum class Step { none, database, begun, put } step = Step::none;
    std::string path; // of the database that is looked at next, as UncheckedItem has it
};
ModifiedTest parse_modified_test(const std::string& line);

// An item that the module could not decide about.
struct UncheckedItem {
    std::string path;            // as the module shows it: UTF-8, cut at 256 bytes; may be empty
    std::string problem;         // for a person
    bool modified_since = false; // the question was whether it was modified since the base
    bool may_come = false;       // it was asked all the same, and nothing is amiss if it comes next
};

// The item that a line says could not be checked, or nothing for any other line. At differential
// and incremental level the module passes over such an item; at full level it hands it out all the
// same.
std::optional<UncheckedItem> parse_unchecked_item(const std::string& line);

// A question about a database that the server took for one about another moment. The module works
// with what the server read.
struct OtherMoment {
    std::string path;      // of the database, as UncheckedItem has it
    std::time_t read = 0;  // seconds since 1970
    std::time_t meant = 0; // likewise
};

// What a line says of that, or nothing for any other line.
std::optional<OtherMoment> parse_other_moment(const std::string& line);

// "the server reads 2026-11-21T02:49:23Z as 2026-11-20T21:19:23Z", for a person.
std::string describe(const OtherMoment& other);
inline constexpr const char* other_moment_hint =
    "qrtln has another time zone than the server: run it with the TZ of the server";

// A folder that the module could not look into.
struct LeftOut {
    std::string path;
    std::string reason;
};

// What a line says was left out, or nothing for any other line. A file system's own lost+found is
// not told of.
std::optional<LeftOut> parse_left_out(const std::string& line);

// Whether a line says that the changes made during a copy could not be completed in it. The module
// hands the copy out all the same.
bool says_changes_incomplete(const std::string& line);

// Whether a line says that a database's file was shorter than the server said. The module copies
// what there is, and zeros for the rest.
bool says_file_short(const std::string& line);

// What a line tells about the module's index of databases.
enum class IndexEvent {
    none,
    begun_anew, // it could not be read: entries of earlier runs are not in the new one
    entry,      // a database gets an entry
    no_entry,   // but not this one, for its name
    entry_lost, // it could not be written
    unreadable, // it is there and stays as it is: the backup has no entries and sets none
};
IndexEvent parse_index_event(const std::string& line);

} // namespace qrtln
