// Makes every call of an operation fail, one in each run, and looks at what that costs: calls of
// the server's library, allocations of the module, and its calls on files. Prints a line for each
// scenario and each complaint. Exits with 0 when it costs nothing, 1 when something was lost, left
// over or claimed wrongly.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <map>

#include "tests/torture/trial.h"

using namespace qrtln::torture;

// To keep more of what was freed, in hundreds of short processes, would double their time.
extern "C" const char* __asan_default_options() {
    return "quarantine_size_mb=1:malloc_context_size=8";
}

namespace {

// With how many calls of each function fail in the short form.
const std::map<std::string, std::size_t> parts = {
    {"fail_at_n", 2}, {"allocations", 4}, {"system_calls", 2}};

const std::map<std::string, std::unique_ptr<Scenario> (*)()> scenarios = {
    {"full", [] { return backup_scenario(DB_LEVEL_FULL); }},
    {"incremental", [] { return backup_scenario(DB_LEVEL_INCR); }},
    {"differential", [] { return backup_scenario(DB_LEVEL_DIFF); }},
    {"activation", activation_scenario},
    {"deleted", [] { return documents_scenario(false); }},
    {"changed", [] { return documents_scenario(true); }},
    {"recovery", recovery_scenario}};

std::string part_of(const std::string& call) {
    const FailingCall* of_module = failing_call(call);
    return of_module == nullptr     ? "fail_at_n"
           : of_module->allocates() ? "allocations"
                                    : "system_calls";
}

// What a call can fail with: first what callers tell apart.
std::vector<int> codes_of(const std::string& call) {
    if (const FailingCall* of_module = failing_call(call); of_module != nullptr)
        return of_module->errors;
    const std::vector<STATUS>& told_apart = notes_call(call).told_apart;
    std::vector<int> codes(told_apart.begin(), told_apart.end());
    codes.push_back(untold_status);
    return codes;
}

// The long form has every call with every code, and goes one beyond the last call: a run in which
// nothing fails ends the loop. The short form goes from the last call to the first, and from the
// last code to the first.
std::vector<Fault> faults_of(const std::string& call, unsigned count, bool all) {
    std::vector<int> codes = codes_of(call);
    std::vector<Fault> faults;
    for (unsigned number = 1; all && number <= count + 1; ++number)
        for (int code : codes)
            faults.push_back({call, number, code});
    std::size_t few = std::min(parts.at(part_of(call)), std::max<std::size_t>(count, codes.size()));
    std::size_t steps = std::max<std::size_t>(few, 2) - 1;
    for (std::size_t i = 0; !all && !codes.empty() && i < few; ++i)
        faults.push_back({call, count - static_cast<unsigned>((count - 1) * i / steps),
                          codes[(codes.size() - 1) * (steps - i) / steps]});
    return faults;
}

class Loop {
  public:
    Loop(std::string name, Scenario& scenario) : m_name(std::move(name)), m_scenario(scenario) {}

    // Returns the number of runs that something was wrong with.
    int run(const std::string& part, bool all) {
        auto start = std::chrono::steady_clock::now();
        m_scenario.prepare(m_workspace);
        m_workspace.keep();
        // What a run without a fault calls, and comes to.
        RunResult whole = run_once(m_workspace, m_scenario, {});
        check({}, whole.done && whole.complaints.empty(), whole, "the run without a fault failed");
        unsigned calls = 0;
        if (m_failures == 0) {
            m_scenario.learn(m_workspace);
            for (const auto& [call, count] : whole.calls)
                if (count > 0 && part_of(call) == part) {
                    calls += count;
                    for (const Fault& fault : faults_of(call, count, all))
                        inject(fault, fault.number <= count);
                }
        }
        std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
        std::printf("%s %-12s %4u calls, %4u injections, %d failures, %.1f s\n", part.c_str(),
                    m_name.c_str(), calls, m_injections, m_failures, seconds.count());
        std::fflush(stdout);
        return m_failures + (m_injections == 0 ? 1 : 0);
    }

  private:
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
        std::printf("%s, %s: %s\n", m_name.c_str(), fault.text().c_str(), what);
        for (const std::string& complaint : result.complaints)
            std::printf("    %s\n", complaint.c_str());
        std::fflush(stdout);
    }

    std::string m_name;
    Scenario& m_scenario;
    Workspace m_workspace;
    unsigned m_injections = 0;
    int m_failures = 0;
};

} // namespace

int main(int argc, char** argv) try {
    CLI::App app{"Makes every call of an operation fail and looks at what that costs"};
    std::string only_part;
    std::string only_scenario;
    bool all = false;
    app.add_flag("--long", all, "Every call, with every status or error");
    app.add_option("--part", only_part, "Only this one")->check(CLI::IsMember(parts));
    app.add_option("--scenario", only_scenario, "Only this one")->check(CLI::IsMember(scenarios));
    CLI11_PARSE(app, argc, argv);
    int failures = 0;
    for (const auto& [part, few] : parts)
        for (const auto& [name, make] : scenarios)
            if ((only_part.empty() || only_part == part) &&
                (only_scenario.empty() || only_scenario == name))
                failures += Loop(name, *make()).run(part, all);
    return failures == 0 ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "torture: %s\n", error.what());
    return 1;
}
