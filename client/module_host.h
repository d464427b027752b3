// Drives the database module in a child process, so that a crash of the server's library, or state
// that it leaves behind, never touches the client. The calls read like the module's entry points.
//
// The child closes an operation that is still open with STATUS=1 when the client goes away. At most
// one item is handed out and unfinished at a time; one operation per host.
#pragma once

#include "client/file_io.h"
#include "qrt_lotus_notes/db_interface.h"

#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace qrtln {

// The size of the module's path buffers, the NUL included.
inline constexpr std::size_t module_path_size = 1028;

struct ModuleOptions {
    std::string module_file;       // a path, or a plain name that the loader searches
    std::string runtime_directory; // where "gv_rw_times:" points; an absolute path
    std::string exec_directory;    // becomes $Notes_ExecDirectory when not empty
    std::function<void(const std::string&)> on_log;   // the protocol of the module; may be empty
    std::function<void(const std::string&)> on_trace; // without it the module does not trace
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
    // Starts the child and loads the module in it. Throws ClientError(server_error) with the
    // loader's text. REQUIRES: this process has no threads; the working directory is not relied on.
    explicit ModuleHost(ModuleOptions options);
    // Ends the child: closes an open operation with STATUS=1 and waits.
    ~ModuleHost();
    ModuleHost(const ModuleHost&) = delete;
    ModuleHost& operator=(const ModuleHost&) = delete;

    // Each returns what the entry point returned. A child that died throws
    // ClientError(server_error) that tells how and during what. A signal to this process is passed
    // on to the child once, where it stops the running copy; the call still returns its result.
    ModuleInfo info();
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
    [[noreturn]] void report_end(const std::string& doing);
    int wait_for_child();

    ModuleOptions m_options;
    FileDescriptor m_socket;
    pid_t m_pid = -1;
    pid_t m_started_pid = -1;
    bool m_interrupt_forwarded = false;
};

// Where the module is looked for: `given` (made absolute) if not empty; else ../lib/libqrtln.so
// beside the folder of this executable; else the plain library name for the loader's search.
std::string find_module(const std::string& given);

} // namespace qrtln
