// Which process has something that others wait for: what it writes down of itself, and what the
// system tells of one by its number.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace qrtln {

// The name of this host; empty when the system does not tell.
std::string host_name();

struct ProcessNote {
    pid_t process = 0; // 0: not known
    std::string host = {};
    std::string user = {};
    std::string command = {}; // its command line, cut where it is long
    // Seconds since 1970: in a note since it has what it notes, else since it runs; 0: not known.
    std::int64_t since = 0;
    // What tells it from another process of the same number; empty in notes of earlier releases.
    std::string boot = {};          // of the host's system
    std::string pid_namespace = {}; // the numbers of processes are of this
    std::uint64_t start = 0;        // in ticks of the system's clock since its boot
};

// This process, which has something since now.
ProcessNote own_process();
// One of this host that runs, as far as this user may know; nothing when there is none.
std::optional<ProcessNote> running_process(pid_t process);

enum class Liveness { runs, ended, not_known };
// Whether the noted process runs: not known of other hosts, and of other containers.
Liveness liveness_of(const ProcessNote& note);
// Whether it ran on the system that runs now, be it in another container.
bool is_of_this_system(const ProcessNote& note);

// The bytes of a file that notes a process: its number on a line, which is all that earlier
// releases have, and a JSON document on another. The reading takes whatever the file has: nothing
// for what is no note.
std::string serialize(const ProcessNote& note);
std::optional<ProcessNote> parse_process_note(std::string_view bytes);

// "process 12 (qrtln backup …, of root, since 2026-11-21T02:49:23Z)" for a person, with what is
// known; "process 12 on mail2 (…)" for one of another host, or where the host is asked for.
std::string describe(const ProcessNote& note, bool with_host = false);
// {"process", "host", "user", "command_line", "since"}: what is known.
nlohmann::json process_json(const ProcessNote& note);

} // namespace qrtln
