#include "tests/torture/trial.h"

#include <cstring>
#include <dirent.h>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/torture/calls.h"
#include "tests/torture/content.h"
#include "tests/torture/file_calls.h"
#include "tests/torture/module_calls.h"

#if defined(__SANITIZE_ADDRESS__)
extern "C" int __lsan_do_recoverable_leak_check();
#endif

namespace fs = std::filesystem;

namespace {

constexpr const char* kKept[] = {"server", "tmp", "run"};

// What is open in this process: files by their paths, everything else by its kind.
std::multiset<std::string> openDescriptors() {
    std::multiset<std::string> open;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        const std::string target = fs::read_symlink(entry.path(), error).string();
        if (!error && target.find("/proc/") == std::string::npos) {
            open.insert(target);
        }
    }
    return open;
}

const char* const kKindNames[] = {"database handles", "backup contexts", "apply contexts",
                                  "ID tables",        "memory objects",  "locked objects"};

// Handles that a failing close leaves, and the one that stays open by contract.
void judgeOutstanding(Trial& trial) {
    for (int kind = 0; kind < static_cast<int>(trial.outstanding.size()); ++kind) {
        unsigned expected = 0;
        if (notesCall(trial.fault.call).leaves == kind && trial.firedBeforeClose) {
            ++expected;
        }
        // Where logging is not in effect the probed database stays open.
        if (kind == NOTES_SIM_DATABASES && trial.fault.status == kNotesLoggingNotInEffect &&
            trial.said("isDatabaseLogged(): NSFGetTransLogStyle failed: ")) {
            ++expected;
        }
        const unsigned found = trial.outstanding[static_cast<std::size_t>(kind)];
        trial.expect(found == expected, std::to_string(found) + " " + kKindNames[kind] + " open, " +
                                            std::to_string(expected) + " expected");
    }
}

// A failed operation tells why somewhere: with the text of the error, or its number.
void judgeReason(Trial& trial, int error) {
    const int shown = error == kShortWrite || error == kDiskFull ? ENOSPC : error;
    const std::string number = std::to_string(shown);
    bool told = trial.said(std::strerror(shown));
    for (const char* before : {"(", "[", "error ", "error: "}) {
        told = told || trial.said(before + number);
    }
    trial.expect(told || trial.allows(kOtherReason),
                 "no message has \"" + fileErrorText(shown) + "\" or " + number);
}

// A failed operation tells why: with the text of the status, or with the fixed text of its call.
void judgeMessage(Trial& trial) {
    trial.expect(!trial.errors.empty() || !Module::s_logs.empty(), "neither an error nor a log");
    if (isModuleCall(trial.fault.call, ModuleCalls::files)) {
        judgeReason(trial, trial.fault.status);
    }
    if (isModuleCall(trial.fault.call)) {
        return;
    }
    char szText[512] = "";
    const auto load = simulatorFunction<WORD (*)(DWORD, STATUS, char*, WORD)>("OSLoadString");
    load(0, trial.fault.status, szText, sizeof szText);
    const char* fixed = notesCall(trial.fault.call).says;
    std::string expected = fixed != nullptr ? fixed : szText;
    if (fixed == nullptr && trial.fault.untold) {
        expected = "Notes status " + std::to_string(trial.fault.status);
    }
    trial.expect(trial.said(expected), "no message has \"" + expected + "\"");
}

// The host lives and can go on: a small backup in the same process succeeds.
void judgeNextOperation(Trial& trial) {
    const Workspace& server = trial.server;
    const std::string database = server.data("small.nsf");
    Module& module = trial.module;
    bool saved = false;
    trial.errors.clear();
    if (trial.succeeded(module.open(server, DB_TYPE_BCK, DB_LEVEL_COPY, {"DATABASE=NOTES"}))) {
        for (std::string item = module.get(); !item.empty() && !saved; item = module.get()) {
            if (item == database) {
                saved = sameContent(module.prepare(item), database);
            }
            saved = module.ItemFinishStatus(DB_ITEM_SUCCESS) == DB_NUM_I_OK && saved;
        }
    }
    const bool closed = module.close("STATUS=0") == DB_NUM_I_OK;
    trial.expect(saved && closed, "the next operation of the process failed: " +
                                      (trial.errors.empty() ? "" : trial.errors.back()));
}

void judgeDescriptors(Trial& trial, const std::multiset<std::string>& before) {
    if (trial.allows(kLeavesStream)) {
        return;
    }
    for (const std::string& path : openDescriptors()) {
        if (before.count(path) == 0 && path.find("/server/state/") == std::string::npos) {
            trial.expect(false, "left open: " + path);
        }
    }
}

// A start that fails early has not loaded it.
bool isSimulatorLoaded() {
    return dlopen(QRTLN_SIMULATOR_DIRECTORY "/libnotes.so", RTLD_NOW | RTLD_NOLOAD) != nullptr;
}

unsigned faultsFired() {
    const unsigned ofNotes =
        isSimulatorLoaded() ? simulatorFunction<unsigned (*)()>("NotesSimFaultsFired")() : 0;
    return ofNotes + moduleFaultsFired();
}

// The body of the child.
void runTrial(Trial& trial, Scenario& scenario, bool& done) {
    const std::multiset<std::string> before = openDescriptors();
    armModuleCalls(trial.fault.call, trial.fault.number, trial.fault.status);
    done = scenario.operate(trial);
    std::ofstream counts(trial.server.folder.file("calls"));
    for (const auto& [call, count] : moduleCallCounts()) {
        counts << call << " " << count << "\n";
    }
    counts.close();
    trial.fired = faultsFired() > 0;
    if (!trial.fault.call.empty() && !trial.fired) {
        return; // the parent knows whether it should have
    }
    judgeDescriptors(trial, before);
    judgeOutstanding(trial);
    if (trial.fired && !done && trial.mustBeComplete()) {
        judgeMessage(trial);
    }
    trial.expect(!done || trial.fault.call != "fsync" || !trial.fired || trial.allows(kUnflushed),
                 "counts as done, and may not survive a power cut");
    scenario.judge(trial, done);
    if (trial.fired) {
        disarmModuleCalls();
        if (isSimulatorLoaded()) {
            simulatorFunction<int (*)(const char*)>("NotesSimSetFaults")("");
        }
        judgeNextOperation(trial);
    }
#if defined(__SANITIZE_ADDRESS__)
    trial.expect(__lsan_do_recoverable_leak_check() == 0, "memory leaked: see above");
#endif
}

void runChild(const Workspace& workspace, Scenario& scenario, const Fault& fault, int report) {
    setenv("NOTES_SIM_FAULTS", isModuleCall(fault.call) ? "" : fault.text().c_str(), 1);
    std::string text;
    try {
        Trial trial(workspace, fault);
        bool done = false;
        runTrial(trial, scenario, done);
        text = std::string(trial.fired ? "F" : "-") + (done ? "D" : "-") + "\n";
        for (const std::string& complaint : trial.complaints) {
            text += complaint + "\n";
        }
        if (!trial.complaints.empty() && !failedPath().empty()) {
            text += "the call was about " + failedPath() + "\n";
        }
    } catch (const std::exception& error) {
        text = std::string("--\nthe test could not go on: ") + error.what() + "\n";
    }
    text += ".\n";
    if (write(report, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        _exit(2);
    }
    _exit(0);
}

std::string readAll(int end) {
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = read(end, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
}

} // namespace

Workspace::Workspace() {
    for (const char* name : {"log.nsf", "mail.box", "pubnames.ntf", "mail/user2.nsf"}) {
        fs::remove(data(name));
    }
    simulate("create " + server() + " small.nsf --notes 2");
}

void Workspace::keep() const {
    for (const char* name : kKept) {
        fs::copy(folder.file(name), folder.makeDirectory("kept") + "/" + name,
                 fs::copy_options::recursive);
    }
}

void Workspace::restore() const {
    for (const char* name : kKept) {
        fs::remove_all(folder.file(name));
        fs::copy(folder.file("kept") + "/" + name, folder.file(name), fs::copy_options::recursive);
    }
    fs::remove(folder.file("journal"));
}

std::string Workspace::index() const {
    return bytesOf(folder.file("run/qrtln_DBIID.ini"));
}

std::string Workspace::stored(const std::string& name) const {
    return folder.file("store/" + name);
}

void Workspace::store(const std::string& name) const {
    copy(data(name), stored(name));
}

void Workspace::copy(const std::string& from, const std::string& to) const {
    fs::create_directories(fs::path(to).parent_path());
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

bool Workspace::isOffline(const std::string& name) const {
    std::string key = name;
    for (std::size_t at = 0; (at = key.find('/', at)) != std::string::npos;) {
        key.replace(at, 1, "%2F");
    }
    return fs::exists(server() + "/state/offline/" + key + ".json");
}

std::string Fault::text() const {
    if (call.empty()) {
        return "";
    }
    const std::string what = isModuleCall(call) ? fileErrorText(status) : std::to_string(status);
    return call + "#" + std::to_string(number) + "=" + what + (untold ? ",OSLoadString=1" : "");
}

bool Trial::succeeded(int answer) {
    if (answer == DB_NUM_I_OK || answer == DB_NUM_I_COMPLETE || answer == DB_NUM_W_WARNING) {
        return true;
    }
    errors.push_back(module.error());
    return false;
}

bool Trial::close(bool done) {
    outstanding.clear();
    if (isSimulatorLoaded()) {
        const auto count = simulatorFunction<unsigned (*)(int)>("NotesSimOutstanding");
        for (int kind = NOTES_SIM_DATABASES; kind <= NOTES_SIM_LOCKED_OBJECTS; ++kind) {
            outstanding.push_back(count(kind));
        }
    }
    firedBeforeClose = faultsFired() > 0;
    return succeeded(module.close(done ? "STATUS=0" : "STATUS=1"));
}

bool Trial::said(const std::string& text) const {
    const auto has = [&](const std::vector<std::string>& messages) {
        return std::any_of(messages.begin(), messages.end(), [&](const std::string& message) {
            return message.find(text) != std::string::npos;
        });
    };
    return has(errors) || has(Module::s_logs) || has(Module::s_traces);
}

bool Trial::logged(const std::string& text, std::size_t from) {
    return std::any_of(
        Module::s_logs.begin() + static_cast<std::ptrdiff_t>(from), Module::s_logs.end(),
        [&](const std::string& message) { return message.find(text) != std::string::npos; });
}

bool Trial::allows(unsigned allowance) const {
    const std::string path = failedPath();
    const std::string root = server.folder.file("");
    const bool below = path.starts_with(root);
    return (allowedAfter(fault.call, below ? path.substr(root.size()) : path) & allowance) != 0;
}

bool Trial::mustBeComplete() const {
    return !notesCall(fault.call).cannotFail && !isAnswer(fault.call, fault.status) &&
           !allows(kDoesLess);
}

RunResult runOnce(const Workspace& workspace, Scenario& scenario, const Fault& fault) {
    fs::remove(workspace.folder.file("journal"));
    scenario.begin(workspace);
    int ends[2];
    if (pipe(ends) != 0) {
        throw std::runtime_error("pipe");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork");
    }
    if (child == 0) {
        ::close(ends[0]);
        // A failed start writes its help there: shown only when something is wrong.
        if (std::freopen(workspace.folder.file("stderr").c_str(), "w", stderr) == nullptr) {
            _exit(2);
        }
        runChild(workspace, scenario, fault, ends[1]);
    }
    ::close(ends[1]);
    const std::string text = readAll(ends[0]);
    ::close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);

    RunResult result;
    const std::string said = bytesOf(workspace.folder.file("stderr"));
    if (fault.call == "malloc" && WIFEXITED(status) && WEXITSTATUS(status) == 255 &&
        said.find("malloc returned NULL") != std::string::npos) {
        result.fired = result.ended = true;
        return result;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || !text.ends_with(".\n")) {
        result.complaints.push_back("the host process died with status " + std::to_string(status));
        result.fired = true;
        std::fputs(said.c_str(), stderr);
        return result;
    }
    result.fired = text[0] == 'F';
    result.done = text[1] == 'D';
    std::istringstream lines(text.substr(3, text.size() - 5));
    for (std::string line; std::getline(lines, line);) {
        result.complaints.push_back(line);
    }
    if (!result.complaints.empty()) {
        std::fputs(said.c_str(), stderr);
    }
    return result;
}
