// Groups of calls of the server's library, each in a process of its own: a crash, a hang or an
// exit of the library there is a finding, and not the end of the report. The process is started
// anew like that of the module: with the environment, the working directory and the user that the
// library will have there.
//
// Before each call the process tells which one it is. It is never ended while it answers: when the
// client goes away, or closes its side of the connection, the process does not call that any more,
// and undoes what it has begun on the server.
#pragma once

#include "client/acceptance/report.h"
#include "client/domino/notes_ini.h"
#include "client/domino/server_user.h"

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qrtln::acceptance {

struct NamedDatabase {
    std::string path;  // full
    std::string shown; // in the report: below the data directory, or a number
};

// What the groups work on.
struct ProbeRequest {
    NotesIni ini; // for a group: its file, its directories and what it says of the log
    std::vector<std::pair<std::string, std::string>> environment; // beside the inherited
    std::optional<ServerUser> user;                               // whom the process becomes
    std::vector<NamedDatabase> databases;
    NamedDatabase test_database; // of the steps that write to one
    std::string folder;          // private and empty, for copies
    std::string log_folder;      // where the log is kept that is marked
    bool hide_output = false;    // what the library writes may name databases
};

// The name of a finding that says why this program, and not the library, could not go on.
inline constexpr const char* own_failure = "failed";
// That of one that says what stays on the server.
inline constexpr const char* left_finding = "left";

// Ends a group: what it has begun is undone on the way out.
struct Surprise {
    Finding finding;
};
// Likewise: the client is gone, or was interrupted.
struct ClientGone {};

// The probe's side of the connection.
class Teller {
  public:
    Teller(int descriptor, Step step) : m_descriptor(descriptor), m_step(step) {}

    // Tells what is called next. Throws ClientGone.
    void calling(const std::string& call);
    // Likewise, while something is undone: never throws.
    void undoing(const std::string& call) noexcept;
    // What of one kind stays on the server if the process ends now; empty: nothing.
    void leaves(const std::string& kind, const std::string& text) noexcept;
    void ok(const std::string& name, const std::string& text, const Statuses& statuses = {});
    void told(const std::string& name, const std::string& text, const Statuses& statuses = {},
              bool incomplete = false);
    [[noreturn]] void stop(const std::string& name, const std::string& text,
                           const Statuses& statuses = {});
    void send(const Finding& finding);
    void done(); // the group is at its end

  private:
    bool write(const nlohmann::json& message) noexcept;
    int m_descriptor;
    Step m_step;
};

using Probe = void (*)(Teller& teller, const ProbeRequest& request);

// In the order in which they are run; probes.h, database_trial.h and log_trial.h say what they do.
enum class Group {
    start,
    second_start,
    names_and_times,
    databases,
    log_style,
    quiet_backup,
    busy_backup,
    recovery,
    offline,
    list_logs,
    mark_log,
};

// Runs one group and adds its findings; a process that ends before its group does, or that is
// silent for longer than `limit` and then ended, is one with the verdict `stop`, and so is what
// it leaves on the server. Returns whether the report may go on. Throws the ClientError of an
// interruption, after the group is undone; what it could not undo is in the report then.
bool run_probe(Report& report, Group group, const ProbeRequest& request,
               std::chrono::seconds limit);

} // namespace qrtln::acceptance
