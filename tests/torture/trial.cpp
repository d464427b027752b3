#include "tests/torture/trial.h"

#include <cstring>
#include <set>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

// There with the address sanitizer.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace qrtln::torture {

namespace {

// What is open in this process: files by their paths, everything else by its kind.
std::multiset<std::string> open_descriptors() {
    std::multiset<std::string> open;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::string target = fs::read_symlink(entry.path(), error).string();
        if (!error && target.find("/proc/") == std::string::npos)
            open.insert(target);
    }
    return open;
}

const char* const kind_names[] = {"database handles", "backup contexts", "apply contexts",
                                  "ID tables",        "memory objects",  "locked objects"};

// Handles that a failing close leaves, and the one that stays open by contract.
void judge_outstanding(Trial& trial) {
    for (int kind = 0; kind < static_cast<int>(trial.outstanding.size()); ++kind) {
        unsigned expected = 0;
        if (notes_call(trial.fault.call).leaves == kind && trial.fired_before_close)
            ++expected;
        // Where logging is not in effect the probed database stays open.
        if (kind == NOTES_SIM_DATABASES && trial.fault.code == kNotesLoggingNotInEffect &&
            trial.said("isDatabaseLogged(): NSFGetTransLogStyle failed: "))
            ++expected;
        unsigned found = trial.outstanding[static_cast<std::size_t>(kind)];
        trial.expect(found == expected, std::to_string(found) + " " + kind_names[kind] + " open, " +
                                            std::to_string(expected) + " expected");
    }
}

// What the module may say of its failure: the text of the status, or the fixed one of its call; of
// a call on a file the text of the error, or its number.
std::vector<std::string> texts_of(const Fault& fault) {
    if (fault.is_on_file()) {
        int shown = fault.code >= short_write ? ENOSPC : fault.code;
        std::string number = std::to_string(shown);
        return {std::strerror(shown), "(" + number, "[" + number, "error " + number,
                "error: " + number};
    }
    if (const char* fixed = notes_call(fault.call).says; fixed != nullptr)
        return {fixed};
    char text[512] = "";
    auto load = simulatorFunction<WORD (*)(DWORD, STATUS, char*, WORD)>("OSLoadString");
    load(0, static_cast<STATUS>(fault.code), text, sizeof text);
    return {text};
}

// A failed operation tells why, but for want of memory.
void judge_message(Trial& trial) {
    trial.expect(!trial.errors.empty() || !Module::s_logs.empty(), "neither an error nor a log");
    const FailingCall* of_module = failing_call(trial.fault.call);
    if (of_module != nullptr && of_module->allocates())
        return;
    std::vector<std::string> texts = texts_of(trial.fault);
    bool told = std::any_of(texts.begin(), texts.end(),
                            [&](const std::string& text) { return trial.said(text); });
    trial.expect(told || trial.allows(other_reason), "no message has \"" + texts.front() + "\"");
}

// The host lives and can go on: a small backup in the same process succeeds.
void judge_next_operation(Trial& trial) {
    std::string database = trial.server.data("small.nsf");
    Module& module = trial.module;
    bool saved = false;
    trial.errors.clear();
    if (trial.succeeded(
            module.open(trial.server, DB_TYPE_BCK, DB_LEVEL_COPY, {"DATABASE=NOTES"}))) {
        for (std::string item = module.get(); !item.empty() && !saved; item = module.get()) {
            if (item == database)
                saved = same_content(module.prepare(item), database);
            saved = module.ItemFinishStatus(DB_ITEM_SUCCESS) == DB_NUM_I_OK && saved;
        }
    }
    bool closed = module.close("STATUS=0") == DB_NUM_I_OK;
    trial.expect(saved && closed, "the next operation of the process failed: " +
                                      (trial.errors.empty() ? "" : trial.errors.back()));
}

void judge_descriptors(Trial& trial, const std::multiset<std::string>& before) {
    if (trial.allows(leaves_stream))
        return;
    for (const std::string& path : open_descriptors())
        trial.expect(before.contains(path) || path.find("/server/state/") != std::string::npos,
                     "left open: " + path);
}

// The body of the child.
void run_trial(Trial& trial, Scenario& scenario, RunResult& result) {
    std::multiset<std::string> before = open_descriptors();
    arm(trial.fault.call, trial.fault.number, trial.fault.code);
    result.done = scenario.operate(trial);
    result.fired = has_fired();
    for (const FailingCall& call : failing_calls())
        result.calls[call.symbol] = call.calls;
    for (const std::string& line : trial.server.journal())
        if (!line.starts_with("--") && !line.starts_with("NotesTerm("))
            ++result.calls[line.substr(0, line.find('('))];
    if (!trial.fault.call.empty() && !result.fired)
        return; // the parent knows whether it should have
    judge_descriptors(trial, before);
    judge_outstanding(trial);
    if (result.fired && !result.done && trial.must_be_complete())
        judge_message(trial);
    trial.expect(!result.done || trial.fault.call != "fsync" || !result.fired ||
                     trial.allows(unflushed),
                 "counts as done, and may not survive a power cut");
    scenario.judge(trial, result.done);
    if (result.fired) {
        disarm();
        if (is_simulator_loaded())
            simulatorFunction<int (*)(const char*)>("NotesSimSetFaults")("");
        judge_next_operation(trial);
        if (__lsan_do_recoverable_leak_check != nullptr)
            trial.expect(__lsan_do_recoverable_leak_check() == 0, "memory leaked: see above");
    }
}

void run_child(const Workspace& workspace, Scenario& scenario, const Fault& fault) {
    bool on_library = failing_call(fault.call) == nullptr;
    setenv("NOTES_SIM_FAULTS", on_library && !fault.call.empty() ? fault.text().c_str() : "", 1);
    RunResult result;
    try {
        Trial trial(workspace, fault);
        run_trial(trial, scenario, result);
        result.complaints = trial.complaints;
        if (!trial.complaints.empty() && !failed_path().empty())
            result.complaints.push_back("the call was about " + failed_path());
    } catch (const std::exception& error) {
        result.complaints.push_back(std::string("the test could not go on: ") + error.what());
    }
    workspace.folder.write("report", nlohmann::json(result).dump());
    _exit(0);
}

// Runs a query; its first column, a line each.
std::string lines_of(sqlite3* database, const char* query) {
    std::string text;
    auto append = [](void* all, int, char** values, char**) {
        *static_cast<std::string*>(all) += std::string(values[0]) + "\n";
        return 0;
    };
    if (sqlite3_exec(database, query, append, &text, nullptr) != SQLITE_OK)
        throw std::runtime_error(sqlite3_errmsg(database));
    return text;
}

} // namespace

std::string content_of(const std::string& path) try {
    // "immutable" takes no locks: closing the file must not drop those of the simulator. Nor may
    // its file-system layer, which is there already, be replaced by one of this program's.
    std::string uri = "file:" + path + "?immutable=1&vfs=unix";
    sqlite3* handle = nullptr;
    int opened =
        sqlite3_open_v2(uri.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> database(handle, &sqlite3_close);
    if (opened != SQLITE_OK)
        return "unsound: cannot be opened";
    if (std::string found = lines_of(handle, "PRAGMA integrity_check"); found != "ok\n")
        return "unsound: " + found;
    return lines_of(handle, "SELECT note_id||' '||hex(unid)||' '||class||' '||subject||' '||"
                            "hex(body) FROM notes") +
           lines_of(handle, "SELECT 'unread '||note_id||' '||user FROM unread");
} catch (const std::runtime_error& failure) {
    return std::string("unsound: ") + failure.what();
}

bool same_content(const std::string& copy, const std::string& database) {
    std::string bytes = read_file(copy);
    if (!bytes.empty() && bytes == read_file(database))
        return true;
    std::string content = content_of(copy);
    return !content.starts_with("unsound") && content == content_of(database);
}

RunResult run_once(const Workspace& workspace, Scenario& scenario, const Fault& fault) {
    for (const char* left : {"journal", "report"})
        fs::remove(workspace.folder.file(left));
    scenario.begin(workspace);
    std::fflush(nullptr);
    pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("fork");
    // A failed start writes its help to stderr: shown only when something is wrong.
    std::string errors = workspace.folder.file("stderr");
    if (child == 0 && std::freopen(errors.c_str(), "w", stderr) != nullptr)
        run_child(workspace, scenario, fault);
    if (child == 0)
        _exit(2);
    int status = 0;
    waitpid(child, &status, 0);

    RunResult result;
    std::string said = read_file(errors);
    if (fault.call == "malloc" && WIFEXITED(status) && WEXITSTATUS(status) == 255 &&
        said.find("malloc returned NULL") != std::string::npos) {
        result.fired = true; // it ended the process, as the lists do without memory
        return result;
    }
    std::string report = read_file(workspace.folder.file("report"));
    if (status != 0 || report.empty()) {
        result.complaints.push_back("the host process died with status " + std::to_string(status));
        result.fired = true;
    } else {
        result = nlohmann::json::parse(report);
    }
    if (!result.complaints.empty())
        std::fputs(said.c_str(), stderr);
    return result;
}

} // namespace qrtln::torture
