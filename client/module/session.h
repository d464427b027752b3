// One operation of the database module, as every command runs it: the module in its child process,
// what it tells, and the reason of a failure.
#pragma once

#include "client/base/error.h"
#include "client/base/file_descriptor.h"
#include "client/domino/notes_ini.h"
#include "client/module/host.h"
#include "client/module/runtime.h"
#include "client/store/store.h"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qrtln {

// What the operations of a command share. Outlives them.
struct OperationContext {
    const NotesIni& ini;
    Store& store;
    std::string tmp_dir;                  // below it each operation makes a private folder
    std::string module;                   // as given; empty: found beside the executable
    int trace = -1;                       // a file descriptor for the module's trace, or -1
    bool verbose = false;                 // show the module's messages
    std::string runtime_directory = {};   // of the module's run-time data; empty: the store's
    std::chrono::seconds call_timeout{0}; // of the server's silence in one call; 0: none
};

// The file that the module's trace is appended to; none for an empty name. Throws
// ClientError(failed).
FileDescriptor open_trace_file(const std::string& file);

// What became of the preparation of an item.
struct Preparation {
    ModuleItem item; // of the last attempt
    bool usable = false;
    // Of the first attempt, if there was a second.
    std::string first_problem;
};

// One operation a session: what the module keeps lasts as long as its process.
class ModuleSession {
  public:
    using Observer = std::function<void(const std::string& line)>;

    // Starts the module. Each line of its protocol is kept, shown and traced as the context says,
    // then handed to `on_log`; each line of its trace to `on_trace` and into the context's file.
    // What is odd about the environment is told once a command. Throws as ModuleHost does.
    ModuleSession(const OperationContext& context, Observer on_log, Observer on_trace = {});
    // Ends an operation that is still open with STATUS=1; nothing is finished.
    ~ModuleSession() = default;
    ModuleSession(const ModuleSession&) = delete;
    ModuleSession& operator=(const ModuleSession&) = delete;

    ModuleHost& host() { return *m_host; }
    // Where the module has its run-time data.
    const std::string& runtime_directory() const { return m_runtime.path(); }
    const std::string& module_file() const { return m_module_file; }

    // DB_InitOperation with NOTESINI and these variables. Returns its result.
    int init(DB_OPERATION_TYPE type, DB_OPERATION_LEVEL level, std::vector<std::string> variables);
    // Ends the command after a failed init: with the interruption if there was one, else with
    // ClientError(server_error) "cannot start the WHAT on the server: REASON". An empty hint
    // becomes the usual one.
    [[noreturn]] void report_failed_start(const std::string& what, const std::string& reason,
                                          std::string hint = {});

    // An item was handed out or announced: it is unfinished.
    void item_begun() { m_item_pending = true; }
    int finish(DB_ITEM_RESULT result);
    // Has the module prepare an item, a second time when the first fails: a backup context that a
    // killed run left on the server fails the next start of one and ends with it.
    Preparation prepare(const std::string& path);
    // A backup at copy level that is dropped: nothing counts as stored. `databases` has for each
    // path the DATABASE value that names it; `take` is called when the module hands one out, and
    // returns whether it went well. Returns the paths that were not handed out. `what` is for the
    // message when the server does not start it.
    std::set<std::string> take_copies(const std::string& what, const std::string& tmp_dir,
                                      const std::map<std::string, std::string>& databases,
                                      const std::function<bool(const std::string& path)>& take);
    // Tells the module that the item which is unfinished did not make it, if there is one.
    void finish_failed();

    // DB_CloseOperation with STATUS=0 or 1.
    int close(bool good);
    // After a failure: finishes the item, closes with STATUS=1 and ends the process. What goes
    // wrong in that is not reported: the first failure is.
    void abandon() noexcept;

    // The module's error, else the last line of its protocol.
    std::string reason();
    // What came before is no reason of what follows.
    void forget_reasons();

  private:
    void on_log(const std::string& line);

    const OperationContext& m_context;
    Observer m_on_log;
    std::string m_module_file;
    ModuleRuntime m_runtime; // in use by the host's child
    std::optional<ModuleHost> m_host;
    std::string m_last_log_line;
    bool m_item_pending = false;
    bool m_open = false;
};

} // namespace qrtln
