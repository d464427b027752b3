// Drives the database module in a child process, so that a crash of the server's library, or state
// that it leaves behind, never touches the client. The calls read like the module's entry points.
//
// The child closes an operation that is still open with STATUS=1 when the client goes away. At most
// one item is handed out and unfinished at a time; one operation per host.
#pragma once

#include "client/base/file_descriptor.h"
#include "client/domino/server_user.h"
#include "client/module/frames.h"
#include "client/module/patience.h"
#include "client/module/told_lines.h"
#include "qrt_lotus_notes/db_interface.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace qrtln {

struct ModuleOptions {
    std::string module_file;        // a path, or a plain name that the loader searches
    std::string runtime_directory;  // where "gv_rw_times:" points; an absolute path
    std::string data_directory;     // the server's: the working directory, and what it must report
    std::optional<ServerUser> user; // whom the child becomes; nobody: stays this user
    std::vector<std::pair<std::string, std::string>> environment; // set beside the inherited one
    std::function<void(const std::string&)> on_log;    // the protocol of the module; may be empty
    std::function<void(const std::string&)> on_trace;  // its trace; may be empty
    std::function<void(const std::string&)> on_notice; // what the process says itself; likewise
    std::chrono::seconds call_timeout{0}; // of silence in a call, after which it is ended; 0: none
};

struct ModuleInfo {
    std::string client;
    std::string version;
    std::string release;
    int item_handling = 0; // a DB_TYPE
};

struct ModuleItem {
    int status = 0; // a DB_NUM_ code
    std::string name;
};

struct ModuleError {
    unsigned long code = 0;
    std::string type;
    std::string message; // empty: none was pending
};

class ModuleHost {
  public:
    // Starts this program anew as the child, so that the loader sees the environment, and loads the
    // module in it. Throws ClientError(server_error) with the loader's text. REQUIRES: this process
    // has no threads.
    explicit ModuleHost(ModuleOptions options);
    // Ends the child: closes an open operation with STATUS=1 and waits, as long as a call would be
    // waited for.
    ~ModuleHost();
    ModuleHost(const ModuleHost&) = delete;
    ModuleHost& operator=(const ModuleHost&) = delete;

    // Each returns what the entry point returned. A child that died throws
    // ClientError(server_error) that tells how and during what. A signal to this process is passed
    // on to the child once, where it stops the running copy; the call still returns its result,
    // unless the library then keeps silent: after some seconds, or with a second signal, the child
    // is ended, and the interruption thrown. That a call keeps silent for a minute is told; after
    // the call timeout the child is ended with ClientError(server_error).
    ModuleInfo info();
    // A library that works with another data directory than the one of the options ends the start
    // before it is asked for anything more, with ClientError(server_error).
    int init(DB_OPERATION_TYPE type, DB_OPERATION_LEVEL level,
             const std::vector<std::string>& variables);
    ModuleItem get_item();
    ModuleItem prepare(const std::string& item);
    ModuleItem set_item(DB_ITEM_TYPE type, const std::string& item);
    int finish(DB_ITEM_RESULT result);
    int close(const std::vector<std::string>& variables);
    ModuleError error();

    // Passes an interruption on to the child now; the calls above do so while they wait.
    void forward_interrupt();
    // Whether the child still runs, as far as is known.
    bool running() const { return m_pid > 0; }
    pid_t process_id() const { return m_started_pid; }

  private:
    std::string call(const std::string& frame, const std::string& doing);
    std::string wait_for_reply(const std::string& doing);
    bool wait_for_message(Patience& patience, const std::string& doing);
    Patience patience() const;
    std::chrono::seconds grace() const;
    bool take_lines();
    void drop_lines();
    void take_notice(const std::string& payload);
    [[noreturn]] void give_up(const std::string& doing, std::chrono::seconds silence);
    std::string what_is_left() const;
    [[noreturn]] void report_end(const std::string& doing);
    void end_child();
    void signal_child(int signal);
    int wait_for_child();

    ModuleOptions m_options;
    FileDescriptor m_socket;
    std::optional<LineReceiver> m_lines; // what a call told is taken with its reply
    pid_t m_pid = -1;
    pid_t m_started_pid = -1;
    bool m_interrupt_forwarded = false;
    bool m_restores = false; // the operation changes live databases
};

// Where the module is looked for: `given` (made absolute) if not empty; else ../lib/libqrtln.so, or
// libqrtln.so.1 in the installed library folder, beside the folder of this executable; else the
// plain library name for the loader's search.
std::string find_module(const std::string& given);

} // namespace qrtln
