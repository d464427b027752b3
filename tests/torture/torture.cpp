// Makes every call of an operation fail, one in each run, and looks at what that costs: calls of
// the server's library, allocations of the module, and its calls on files. Prints a line for each
// scenario and each complaint. Exits with 0 when it costs nothing, 1 when something was lost, left
// over or claimed wrongly.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <map>

#include "tests/torture/calls.h"
#include "tests/torture/failing_calls.h"
#include "tests/torture/trial.h"

using namespace qrtln::torture;

namespace {

// Calls into libc of one name that fail in the short form, about.
constexpr unsigned spread_allocations = 4;
constexpr unsigned spread_file_calls = 2;

// What is run. An empty name stands for all.
struct Choice {
    std::string part;
    std::string scenario;
    std::string call;
    // Every occurrence of a call with every status or error; otherwise a few.
    bool all = false;
};

const std::vector<std::string> parts = {"fail_at_n", "allocations", "system_calls"};

const std::pair<std::string, std::unique_ptr<Scenario> (*)()> scenarios[] = {
    {"full", [] { return backup(DB_LEVEL_FULL); }},
    {"incremental", [] { return backup(DB_LEVEL_INCR); }},
    {"differential", [] { return backup(DB_LEVEL_DIFF); }},
    {"activation", restore_with_activation},
    {"deleted", [] { return restore_of_documents(false); }},
    {"changed", [] { return restore_of_documents(true); }},
    {"recovery", recovery}};

// How often a call that can fail was made in the run before, by its name.
std::map<std::string, unsigned> counts_of(const std::string& part, const Workspace& workspace,
                                          const RunResult& run) {
    std::map<std::string, unsigned> counts;
    if (part == "fail_at_n") {
        for (const std::string& line : workspace.journal())
            if (!line.starts_with("--") && !line.starts_with("NotesTerm("))
                ++counts[line.substr(0, line.find('('))];
        return counts;
    }
    for (const FailingCall& call : failing_calls())
        if (unsigned count = run.calls.at(call.symbol);
            count > 0 && !call.errors.empty() && call.allocates() == (part == "allocations"))
            counts[call.symbol] = count;
    return counts;
}

// The long form goes one beyond the last call: a run in which nothing fails ends the loop. The
// short form spreads the calls evenly over the operation, and takes the errors in turn.
std::vector<Fault> faults_of_module(const FailingCall& call, unsigned count, bool all) {
    std::vector<Fault> faults;
    if (all) {
        for (unsigned number = 1; number <= count + 1; ++number)
            for (int error : call.errors)
                faults.push_back({call.symbol, number, error});
        return faults;
    }
    unsigned spread = call.allocates() ? spread_allocations : spread_file_calls;
    std::size_t turn = 0;
    for (unsigned number = 1; number <= count; number += std::max(1U, count / spread))
        faults.push_back({call.symbol, number, call.errors[turn++ % call.errors.size()]});
    return faults;
}

// In the short form the first call fails with a status that its caller tells apart, if there is
// one, and the last with one that it does not.
std::vector<Fault> faults_of_library(const std::string& name, unsigned count, bool all) {
    std::vector<STATUS> statuses = notes_call(name).told_apart;
    std::vector<Fault> faults = {{name, count, untold_status, all || name == "NSFDbOpen"}};
    if (!all && (!statuses.empty() || count > 1))
        faults.push_back({name, 1, statuses.empty() ? untold_status : statuses.front()});
    statuses.push_back(untold_status);
    for (STATUS status : statuses)
        for (unsigned number = 1; all && number <= count + 1; ++number)
            faults.push_back({name, number, status});
    return faults;
}

class Loop {
  public:
    Loop(const Choice& choice, const std::string& part, const std::string& name, Scenario& scenario)
        : m_choice(choice), m_part(part), m_name(name), m_scenario(scenario) {}

    // Returns the number of runs that something was wrong with.
    int run() {
        auto start = std::chrono::steady_clock::now();
        m_scenario.prepare(m_workspace);
        m_workspace.keep();
        // What a run without a fault calls, and comes to.
        RunResult whole = run_once(m_workspace, m_scenario, {});
        check({}, whole.done && whole.complaints.empty(), whole, "the run without a fault failed");
        unsigned calls = 0;
        if (m_failures == 0) {
            m_scenario.learn(m_workspace);
            for (const auto& [call, count] : counts_of(m_part, m_workspace, whole)) {
                calls += count;
                if (m_choice.call.empty() || m_choice.call == call)
                    inject_into(call, count);
            }
        }
        std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        std::printf("%s %-12s %4u calls, %4u injections, %d failures, %.1f s\n", m_part.c_str(),
                    m_name.c_str(), calls, m_injections, m_failures, seconds.count());
        std::fflush(stdout);
        return m_failures + (m_injections == 0 ? 1 : 0);
    }

  private:
    void inject_into(const std::string& name, unsigned count) {
        const FailingCall* call = failing_call(name);
        for (const Fault& fault : call != nullptr ? faults_of_module(*call, count, m_choice.all)
                                                  : faults_of_library(name, count, m_choice.all))
            inject(fault, fault.number <= count);
    }

    // One run with a fault, and what a host does after it.
    void inject(const Fault& fault, bool due) {
        m_workspace.restore();
        RunResult result = run_once(m_workspace, m_scenario, fault);
        check(fault, result.fired == due, result, due ? "did not fire" : "fired");
        if (!result.fired)
            return;
        ++m_injections;
        check(fault, result.complaints.empty(), result, "");
        for (Scenario* next : m_scenario.repair(fault)) {
            RunResult repaired = run_once(m_workspace, *next, {});
            if (!repaired.done && m_scenario.may_need_retry(fault))
                repaired = run_once(m_workspace, *next, {});
            check(fault, repaired.done && repaired.complaints.empty(), repaired,
                  "the next operation on the server failed");
        }
    }

    void check(const Fault& fault, bool holds, const RunResult& result, const char* what) {
        if (holds)
            return;
        ++m_failures;
        std::printf("%s, %s: %s\n", m_name.c_str(),
                    fault.call.empty() ? "no fault" : fault.text().c_str(), what);
        for (const std::string& complaint : result.complaints)
            std::printf("    %s\n", complaint.c_str());
        std::fflush(stdout);
    }

    const Choice& m_choice;
    const std::string& m_part;
    const std::string& m_name;
    Scenario& m_scenario;
    Workspace m_workspace;
    unsigned m_injections = 0;
    int m_failures = 0;
};

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Makes every call of an operation fail and looks at what that costs"};
    Choice choice;
    std::vector<std::string> names;
    for (const auto& [name, make] : scenarios)
        names.push_back(name);
    app.add_flag("--long", choice.all, "Every call, with every status or error");
    app.add_option("--part", choice.part, "Only this one")->check(CLI::IsMember(parts));
    app.add_option("--scenario", choice.scenario, "Only this one")->check(CLI::IsMember(names));
    app.add_option("--call", choice.call, "Only calls of this function");
    CLI11_PARSE(app, argc, argv);
    int failures = 0;
    for (const std::string& part : parts)
        for (const auto& [name, make] : scenarios)
            if ((choice.part.empty() || choice.part == part) &&
                (choice.scenario.empty() || choice.scenario == name))
                failures += Loop(choice, part, name, *make()).run();
    return failures == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "torture: %s\n", error.what());
    return 1;
}
