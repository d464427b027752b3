#include "tests/torture/fail_at_n.h"

#include <chrono>
#include <map>
#include <set>

#include "tests/torture/calls.h"
#include "tests/torture/module_calls.h"
#include "tests/torture/scenarios.h"

namespace {

// Calls into libc of one name that fail in the short form, about.
constexpr unsigned kSpreadAllocations = 4;
constexpr unsigned kSpreadFileCalls = 2;

using Clock = std::chrono::steady_clock;

struct Figures {
    std::size_t calls = 0;
    unsigned occurrences = 0;
    unsigned injections = 0;
    std::set<STATUS> statuses;
    unsigned claimed = 0; // runs that counted as done in spite of the fault
    unsigned ended = 0;   // runs that ended their process, as the lists do without memory
    int failures = 0;
};

// How often the journal has each call. NotesTerm cannot fail.
std::map<std::string, unsigned> countCalls(const Workspace& workspace) {
    std::map<std::string, unsigned> counts;
    for (const std::string& line : workspace.journal()) {
        const std::string name = line.substr(0, line.find('('));
        if (!line.starts_with("--") && name != "NotesTerm") {
            ++counts[name];
        }
    }
    return counts;
}

// How often the module made each call of a kind in the run before. Those that cannot fail are left
// out.
std::map<std::string, unsigned> countModuleCalls(const Workspace& workspace, ModuleCalls kind) {
    std::map<std::string, unsigned> counts;
    std::ifstream stream(workspace.folder.file("calls"));
    unsigned count = 0;
    for (std::string name; stream >> name >> count;) {
        if (isModuleCall(name, kind) && !moduleCallErrors(name).empty()) {
            counts[name] = count;
        }
    }
    return counts;
}

std::map<std::string, unsigned> countsOf(const std::string& part, const Workspace& workspace) {
    if (part == kNotesCalls) {
        return countCalls(workspace);
    }
    return countModuleCalls(workspace,
                            part == kAllocations ? ModuleCalls::allocations : ModuleCalls::files);
}

// The short form spreads the calls evenly over the operation, and takes the errors in turn.
std::vector<Fault> moduleFaultsFor(const std::string& call, unsigned count, bool longForm) {
    const std::vector<int>& errors = moduleCallErrors(call);
    std::vector<Fault> faults;
    const unsigned spread =
        isModuleCall(call, ModuleCalls::files) ? kSpreadFileCalls : kSpreadAllocations;
    const unsigned step = longForm ? 1 : std::max(1U, count / spread);
    std::size_t turn = 0;
    for (unsigned number = 1; number <= count + (longForm ? 1 : 0); number += step) {
        if (longForm) {
            for (const int error : errors) {
                faults.push_back({call, number, static_cast<STATUS>(error)});
            }
        } else {
            faults.push_back({call, number, static_cast<STATUS>(errors[turn++ % errors.size()])});
        }
    }
    return faults;
}

// What is injected into a call that is made so often: in the short form the first with a status
// that its caller tells apart, if there is one, and the last with one that it does not.
std::vector<Fault> faultsFor(const std::string& call, unsigned count, bool longForm) {
    const std::vector<STATUS>& toldApart = notesCall(call).toldApart;
    if (isModuleCall(call)) {
        return moduleFaultsFor(call, count, longForm);
    }
    if (!longForm) {
        std::vector<Fault> faults = {{call, count, kUntoldStatus, call == "NSFDbOpen"}};
        if (!toldApart.empty() || count > 1) {
            faults.push_back({call, 1, toldApart.empty() ? kUntoldStatus : toldApart.front()});
        }
        return faults;
    }
    std::vector<STATUS> statuses = toldApart;
    statuses.push_back(kUntoldStatus);
    std::vector<Fault> faults = {{call, count, kUntoldStatus, true}};
    for (const STATUS status : statuses) {
        // One more than there are calls: a run that injects nothing ends the loop.
        for (unsigned number = 1; number <= count + 1; ++number) {
            faults.push_back({call, number, status});
        }
    }
    return faults;
}

class Loop {
  public:
    Loop(const Workspace& workspace, Scenario& scenario, const Choice& choice)
        : m_workspace(workspace), m_scenario(scenario), m_choice(choice) {}

    Figures run() {
        m_scenario.prepare(m_workspace);
        m_workspace.keep();
        // What a run without a fault calls, and comes to.
        const RunResult whole = runOnce(m_workspace, m_scenario, {});
        check({}, whole.done && whole.complaints.empty(), whole, "the run without a fault failed");
        if (m_figures.failures > 0) {
            return m_figures;
        }
        m_scenario.learn(m_workspace);
        const auto counts = countsOf(m_choice.part, m_workspace);
        m_figures.calls = counts.size();
        for (const auto& [call, count] : counts) {
            m_figures.occurrences += count;
            if (m_choice.call.empty() || m_choice.call == call) {
                for (const Fault& fault : faultsFor(call, count, m_choice.longForm)) {
                    inject(fault, count);
                }
            }
        }
        return m_figures;
    }

  private:
    // One run with a fault, and what a host does after it.
    void inject(const Fault& fault, unsigned count) {
        m_workspace.restore();
        const RunResult result = runOnce(m_workspace, m_scenario, fault);
        const bool due = fault.number <= count;
        check(fault, result.fired == due, result, due ? "did not fire" : "fired");
        if (!result.fired) {
            return;
        }
        ++m_figures.injections;
        m_figures.statuses.insert(fault.status);
        m_figures.claimed += result.done ? 1 : 0;
        m_figures.ended += result.ended ? 1 : 0;
        check(fault, result.complaints.empty(), result, "");
        for (Scenario* next : m_scenario.repair(fault)) {
            RunResult repaired = runOnce(m_workspace, *next, {});
            if (!repaired.done && m_scenario.mayNeedRetry(fault)) {
                repaired = runOnce(m_workspace, *next, {});
            }
            check(fault, repaired.done && repaired.complaints.empty(), repaired,
                  "the next operation on the server failed");
        }
    }

    void check(const Fault& fault, bool holds, const RunResult& result, const char* what) {
        if (holds) {
            return;
        }
        ++m_figures.failures;
        std::printf("%s, %s: %s\n", m_scenario.name(),
                    fault.call.empty() ? "no fault" : fault.text().c_str(), what);
        for (const std::string& complaint : result.complaints) {
            std::printf("    %s\n", complaint.c_str());
        }
        std::fflush(stdout);
    }

    const Workspace& m_workspace;
    Scenario& m_scenario;
    const Choice& m_choice;
    Figures m_figures;
};

} // namespace

int failAtN(const Choice& choice) {
    int failures = 0;
    bool found = false;
    for (const auto& make :
         {fullBackup, incrementalBackup, differentialBackup, restoreWithActivation,
          restoreOfDeletedDocuments, restoreOfChangedDocuments, recovery}) {
        const auto chosen = make();
        if (!choice.scenario.empty() && choice.scenario != chosen->name()) {
            continue;
        }
        found = true;
        const Workspace workspace;
        const auto start = Clock::now();
        const Figures figures = Loop(workspace, *chosen, choice).run();
        const std::chrono::duration<double> seconds = Clock::now() - start;
        std::printf("%s %-12s %2zu functions, %4u calls, %4u injections of %zu statuses, "
                    "%3u done all the same, %u ended the process, %d failures, %.1f s\n",
                    choice.part.c_str(), chosen->name(), figures.calls, figures.occurrences,
                    figures.injections, figures.statuses.size(), figures.claimed, figures.ended,
                    figures.failures, seconds.count());
        std::fflush(stdout);
        failures += figures.failures + (figures.injections == 0 ? 1 : 0);
    }
    return found ? failures : 1;
}
