// One run of an operation in a process of its own, as a host drives it, and what must hold after it
// whatever failed.
#pragma once

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "tests/interface/module_host.h"
#include "tests/support/files.h"
#include "tests/torture/calls.h"
#include "tests/torture/failing_calls.h"

namespace qrtln::torture {

namespace fs = std::filesystem;
using test::read_file;

// What users find in a database: every note and every unread mark, a line each. Begins with
// "unsound" when the database is damaged or there is none. Its place, its identity and the times of
// its changes are left out.
std::string content_of(const std::string& path);
// Whether a copy has what the database has.
bool same_content(const std::string& copy, const std::string& database);

inline constexpr const char* kept_folders[] = {"server", "tmp", "run"};

// A server with two small databases, and what was prepared for a scenario. The folder is put back
// as it was kept before each run: paths in it stay the same.
class Workspace : public SimulatedServer {
  public:
    Workspace() {
        for (const char* name : {"log.nsf", "mail.box", "pubnames.ntf", "mail/user2.nsf"})
            fs::remove(data(name));
        simulate("create " + server() + " small.nsf --notes 2");
    }

    // Keeps server, TMP_DIR and run-time data as they are now, and puts them back.
    void keep() const {
        for (const char* name : kept_folders)
            fs::copy(folder.file(name), folder.makeDirectory("kept") + "/" + name,
                     fs::copy_options::recursive);
    }

    void restore() const {
        for (const char* name : kept_folders) {
            fs::remove_all(folder.file(name));
            fs::copy(folder.file("kept") + "/" + name, folder.file(name),
                     fs::copy_options::recursive);
        }
    }

    // Takes the present content of a database into the host's store; where it is there.
    void store(const std::string& name) const { copy(data(name), stored(name)); }
    std::string stored(const std::string& name) const { return folder.file("store/" + name); }
    bool is_offline(const std::string& name) const {
        std::string key = std::regex_replace(name, std::regex("/"), "%2F");
        return fs::exists(server() + "/state/offline/" + key + ".json");
    }
};

// The fault of a run: a call of the server's library with its status, or a call of the module into
// libc with its errno. Without a call there is none.
struct Fault {
    std::string call;
    unsigned number = 0;
    int code = 0;

    bool is_on_file() const {
        const FailingCall* of_module = failing_call(call);
        return of_module != nullptr && !of_module->allocates();
    }

    std::string text() const {
        if (call.empty())
            return "no fault";
        std::string what = failing_call(call) != nullptr ? error_text(code) : std::to_string(code);
        return call + "#" + std::to_string(number) + "=" + what;
    }
};

// A start that fails early has not loaded it.
inline bool is_simulator_loaded() {
    return dlopen(QRTLN_SIMULATOR_DIRECTORY "/libnotes.so", RTLD_NOW | RTLD_NOLOAD) != nullptr;
}

inline bool has_fired() {
    return call_has_failed() || (is_simulator_loaded() &&
                                 simulatorFunction<unsigned (*)()>("NotesSimFaultsFired")() > 0);
}

inline bool mentions(const std::vector<std::string>& messages, const std::string& text,
                     std::size_t from = 0) {
    return std::any_of(
        messages.begin() + static_cast<std::ptrdiff_t>(from), messages.end(),
        [&](const std::string& message) { return message.find(text) != std::string::npos; });
}

// What a host saw and heard, and the complaints of whoever judges it.
class Trial {
  public:
    Trial(const Workspace& workspace, const Fault& injected) : server(workspace), fault(injected) {}

    const Workspace& server;
    const Fault& fault;
    Module module;
    // Every text of DB_GetError, in order.
    std::vector<std::string> errors;
    std::vector<std::string> complaints;
    // The fault fired before the close.
    bool fired_before_close = false;
    // The host's own count of what was open just before the close, by NotesSimKind.
    std::vector<unsigned> outstanding;

    void expect(bool holds, const std::string& complaint) {
        if (!holds)
            complaints.push_back(complaint);
    }
    // Takes a module's answer: a failure's text is fetched. Returns whether it succeeded.
    bool succeeded(int answer) {
        if (answer == DB_NUM_I_OK || answer == DB_NUM_I_COMPLETE || answer == DB_NUM_W_WARNING)
            return true;
        errors.push_back(module.error());
        return false;
    }

    // Closes the operation after counting what is open. Returns whether the close succeeded.
    bool close(bool done) {
        outstanding.clear();
        if (is_simulator_loaded()) {
            auto count = simulatorFunction<unsigned (*)(int)>("NotesSimOutstanding");
            for (int kind = NOTES_SIM_DATABASES; kind <= NOTES_SIM_LOCKED_OBJECTS; ++kind)
                outstanding.push_back(count(kind));
        }
        fired_before_close = has_fired();
        return succeeded(module.close(done ? "STATUS=0" : "STATUS=1"));
    }

    // Whether the module said a text anywhere, as part of a message; in its log, from a line on.
    bool said(const std::string& text) const {
        return mentions(errors, text) || logged(text) || mentions(Module::s_traces, text);
    }

    static bool logged(const std::string& text, std::size_t from = 0) {
        return mentions(Module::s_logs, text, from);
    }

    // Whether the fault, a failed call on a file, may leave something: of FileAllowance.
    bool allows(unsigned allowance) const {
        std::string path = failed_path();
        std::string root = server.folder.file("");
        if (path.starts_with(root))
            path.erase(0, root.size());
        return (allowed_after(fault.call, path) & allowance) != 0;
    }

    // Whether nothing may be missing from an operation that counts as done.
    bool must_be_complete() const {
        const NotesCall& call = notes_call(fault.call);
        return call.reports == Reports::failures ||
               (call.reports == Reports::answers && fault.code == untold_status);
    }
};

// An operation that a host runs on a server.
class Scenario {
  public:
    virtual ~Scenario() = default;
    // Makes the server and the host's store what the operation needs.
    virtual void prepare(const Workspace& workspace) = 0;
    // What a host does each time before the operation, on the server as the last run left it.
    virtual void begin(const Workspace&) {}
    // Runs the operation, the close included. Returns whether the host counts it as done.
    virtual bool operate(Trial& trial) = 0;
    // Complains of what is lost, left over or claimed wrongly.
    virtual void judge(Trial& trial, bool done) = 0;
    // Learns from a run without a fault what a complete one comes to.
    virtual void learn(const Workspace&) {}
    // What a host must do, each in a process of its own, until all is well after a fault.
    virtual std::vector<Scenario*> repair(const Fault&) { return {this}; }
    // Whether the server answers the next operation once with an error, and then is itself again.
    virtual bool may_need_retry(const Fault&) const { return false; }
};

std::unique_ptr<Scenario> backup_scenario(DB_OPERATION_LEVEL level);
std::unique_ptr<Scenario> activation_scenario();
std::unique_ptr<Scenario> documents_scenario(bool changed); // or deleted
std::unique_ptr<Scenario> recovery_scenario();

// The result of a run, as its parent process knows it.
struct RunResult {
    bool fired = false;
    bool done = false;
    std::vector<std::string> complaints;
    // How often the module called each function of the server's library, and of libc that can fail.
    std::map<std::string, unsigned> calls;
};

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(RunResult, fired, done, complaints, calls)

// Runs an operation in a child process with a fault, judges it, and, after a fault, runs a small
// further operation in that process. A crash is a complaint.
RunResult run_once(const Workspace& workspace, Scenario& scenario, const Fault& fault);

} // namespace qrtln::torture
