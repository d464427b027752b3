// One run of an operation in a process of its own, as a host drives it, and what must hold after it
// whatever failed.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/interface/module_host.h"
#include "tests/torture/bytes_of.h"

namespace qrtln::torture {

// What users find in a database: every note and every unread mark, a line each. Begins with
// "unsound" when the database is damaged or there is none. Its place, its identity and the times of
// its changes are left out.
std::string content_of(const std::string& path);
// Whether a copy has what the database has.
bool same_content(const std::string& copy, const std::string& database);

// A server with two small databases, and what was prepared for a scenario. The folder is put back
// as it was kept before each run: paths in it stay the same.
class Workspace : public SimulatedServer {
  public:
    Workspace();

    // Keeps server, TMP_DIR and run-time data as they are now, and puts them back.
    void keep() const;
    void restore() const;

    // The index of database instances, "" when there is none.
    std::string index() const { return bytes_of(folder.file("run/qrtln_DBIID.ini")); }
    // Takes the present content of a database into the host's store; where it is there.
    void store(const std::string& name) const { copy(data(name), stored(name)); }
    std::string stored(const std::string& name) const { return folder.file("store/" + name); }
    void copy(const std::string& from, const std::string& to) const;
    bool is_offline(const std::string& name) const;
};

// The fault of a run: a call of the server's library with its status, or a call of the module into
// libc with its errno. Without a call there is none.
struct Fault {
    std::string call;
    unsigned number = 0;
    int code = 0;
    // The server has no text for any status, either.
    bool untold = false;

    bool is_on_file() const;
    std::string text() const;
};

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
    bool succeeded(int answer);
    // Closes the operation after counting what is open. Returns whether the close succeeded.
    bool close(bool done);
    // Whether the module said a text anywhere, as part of a message; in its log, from a line on.
    bool said(const std::string& text) const;
    static bool logged(const std::string& text, std::size_t from = 0);
    // Whether the fault, a failed call on a file, may leave something: of FileAllowance.
    bool allows(unsigned allowance) const;
    // Whether nothing may be missing from an operation that counts as done.
    bool must_be_complete() const;
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

std::unique_ptr<Scenario> backup(DB_OPERATION_LEVEL level);
std::unique_ptr<Scenario> restore_with_activation();
std::unique_ptr<Scenario> restore_of_documents(bool changed); // else deleted
std::unique_ptr<Scenario> recovery();

// The result of a run, as its parent process knows it.
struct RunResult {
    bool fired = false;
    bool done = false;
    std::vector<std::string> complaints;
    // How often the module called each function of libc that can fail.
    std::map<std::string, unsigned> calls;
};

// Runs an operation in a child process with a fault, judges it, and, after a fault, runs a small
// further operation in that process. A crash is a complaint.
RunResult run_once(const Workspace& workspace, Scenario& scenario, const Fault& fault);

} // namespace qrtln::torture
