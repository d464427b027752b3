// Kills backups: at each call that changes a file, at random moments, and by power cuts that take
// what was not flushed. Whatever the moment, the index of databases is the old or the new one, no
// transaction log is marked as archived that the store does not hold, the store verifies, and the
// next run saves what the killed one owed, without a hand: see crash_judge.h.
//
//   backup_crashes [--calls N] [--moments N] [--long] [--scenario NAME] [--seed N]
//   backup_crashes --plant marking|flush|index
//
// Prints the sums; ends with 1 when a rule was violated. With a planted defect it ends with 0 when
// the rule that the defect violates was found violated.
#include "tests/torture/crash_judge.h"
#include "tests/torture/durable_disk.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>

namespace fs = std::filesystem;
using namespace qrtln::torture;

namespace {

struct Options {
    std::size_t calls = 3; // of each scenario, at which a run is killed
    std::size_t from = 1;  // call, in the long form
    std::size_t moments = 1;
    std::string scenario;
    std::string kind;
    std::string plant;
    bool all = false;
    bool keep = false;
    std::uint64_t seed = 1;
};

struct Kind {
    const char* name;
    Victim victim;
    std::optional<PowerCut> cut;
    bool in_next_run = false; // or after it: it may rely on what the killed one did not flush
};

constexpr std::array kinds = {
    Kind{"client and module killed", Victim::everything, {}},
    Kind{"power cut, nothing kept", Victim::everything, PowerCut::nothing_kept},
    Kind{"client killed", Victim::client, {}},
    Kind{"power cut, names kept", Victim::everything, PowerCut::names_kept},
    Kind{"module killed", Victim::module_process, {}},
    Kind{"power cut at random", Victim::everything, PowerCut::at_random},
    Kind{"killed, and power cut in or after the next run", Victim::everything,
         PowerCut::nothing_kept, true}};

// How a planted defect is made, and what it violates.
struct Plant {
    const char* name;
    bool in_module; // else in the flushes
    const char* rule;
};

constexpr std::array plants = {Plant{"marking", true, rule::extents},
                               Plant{"flush", false, rule::verify},
                               Plant{"index", true, rule::index}};

struct Scenario : Start {
    std::size_t calls = 0;     // of a whole run
    std::size_t owed_from = 0; // the calls between which databases are owed
    std::size_t owed_until = 0;
    std::chrono::microseconds takes{}; // untraced
};

// Sees a whole run go by.
class WholeRun final : public CallObserver {
  public:
    WholeRun(std::string store, Scenario& scenario)
        : m_store(std::move(store)), m_scenario(scenario) {}
    void before_call() override {
        ++m_calls;
        m_scenario.indexes.insert(index_of(m_store));
        if (!fs::exists(m_store + "/runtime/owed.jsonl"))
            return;
        m_scenario.owed_until = m_calls;
        if (m_scenario.owed_from == 0)
            m_scenario.owed_from = m_calls;
    }

  private:
    std::string m_store;
    Scenario& m_scenario;
    std::size_t m_calls = 0;
};

// Sees the run after a killed one go by. What it owes, and so its index, depends on the moment.
class NextRun final : public CallObserver {
  public:
    NextRun(std::string store, DurableDisk& disk, CrashJudge& judge)
        : m_store(std::move(store)), m_disk(disk), m_judge(judge) {}
    void before_call() override { m_judge.allow_index(index_of(m_store)); }
    bool ignores_flush(const std::string& descriptor) override {
        return m_disk.ignores_flush(descriptor);
    }
    void flushed(const std::string& descriptor) override { m_disk.flushed(descriptor); }

  private:
    std::string m_store;
    DurableDisk& m_disk;
    CrashJudge& m_judge;
};

struct Sums {
    std::map<std::string, int> kills; // by kind
    int at_calls = 0;
    int at_moments = 0;
    int missed = 0;
};

class Crashes {
  public:
    Crashes(const Options& options, const std::string& folder)
        : m_options(options),
          m_history({QRTLN_EXECUTABLE, QRTLN_DOMINO_SIM, QRTLN_SIMULATOR_DIRECTORY}, folder,
                    options.seed),
          m_judge(m_history), m_random(options.seed) {}
    int find_violations();
    int find_planted(const Plant& plant);

  private:
    void make_server();
    std::vector<Scenario> make_scenarios();
    Scenario look_at(const std::string& kept, bool full);
    std::vector<std::string> words(const Scenario& scenario) const;
    void kill_at_calls(const Scenario& scenario);
    void kill_at_call(const Scenario& scenario, const Kind& kind, std::size_t call);
    void kill_at_moment(const Scenario& scenario, const Kind& kind);
    void strike(const Scenario& scenario, const Kind& kind, std::size_t call);
    void strike_next(const Scenario& scenario, DurableDisk& disk);
    std::string seed() const { return ", seed " + std::to_string(m_options.seed); }
    int report() const;

    const Options& m_options;
    const Plant* m_plant = nullptr;
    History m_history;
    CrashJudge m_judge;
    std::mt19937_64 m_random;
    Sums m_sums;
    std::size_t m_next_kind = 0;
    std::size_t m_next_victim = 0;
};

// Databases that are logged and not, a template, a folder; since the last set one is new, one was
// compacted, others changed, and extents are full.
void Crashes::make_server() {
    auto change_all = [this] {
        for (const auto& [name, database] : m_history.databases())
            m_history.commit(name);
    };
    change_all();
    for (bool full : {true, true, false}) { // the second one gives the databases their entries
        m_history.back_up(full);
        change_all();
    }
    m_history.create("mail/new.nsf", m_options.seed);
    for (const char* name : {"mail/user1.nsf", "names.nsf"})
        m_history.compact(name);
    // Only the index tells that this one was compacted.
    m_history.simulate({"saved", m_history.server_folder(), "mail/user1.nsf"});
    constexpr std::size_t extents = 2;
    while (waiting_extents(m_history.server()).size() < extents)
        change_all();
    m_history.keep("changed");
}

std::vector<std::string> Crashes::words(const Scenario& scenario) const {
    std::vector<std::string> words = {"backup", "--level", scenario.full ? "full" : "incr"};
    if (m_plant != nullptr && m_plant->in_module)
        words.insert(words.end(), {"--module", QRTLN_FAULTY_MODULE});
    return words;
}

// A run that is not killed shows what there is to kill, and what the index may be.
Scenario Crashes::look_at(const std::string& kept, bool full) {
    Scenario scenario;
    scenario.kept = kept;
    scenario.full = full;
    m_history.bring_back(kept);
    scenario.waiting = waiting_extents(m_history.server());
    WholeRun observer(m_history.store(), scenario);
    Run whole = m_history.qrtln(words(scenario), true, {}, &observer);
    scenario.calls = whole.calls.size();
    scenario.indexes.insert(index_of(m_history.store()));
    // When the module dies over what is owed, the run goes on with what was asked for.
    m_history.bring_back(kept);
    (void)m_history.qrtln(words(scenario), true, {Victim::module_process, 1});
    scenario.indexes.insert(index_of(m_history.store()));
    m_history.bring_back(kept);
    auto begin = std::chrono::steady_clock::now();
    Run untraced = m_history.qrtln(words(scenario));
    scenario.takes = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - begin);
    if (whole.exit_code != 0 || untraced.exit_code != 0)
        throw std::runtime_error("a backup that was not killed failed: " + whole.errors);
    if (scenario.waiting.size() == waiting_extents(m_history.server()).size())
        throw std::runtime_error("the backup marks no extent");
    if (scenario.indexes.size() < 2)
        throw std::runtime_error("the backup does not change the index");
    return scenario;
}

std::vector<Scenario> Crashes::make_scenarios() {
    std::vector<Scenario> scenarios;
    auto add = [&](const std::string& kept, bool full) {
        scenarios.push_back(look_at(kept, full));
    };
    add("changed", true);
    add("changed", false);
    // Of a run whose databases are prepared and in no set.
    const Scenario incremental = scenarios.back();
    m_history.bring_back("changed");
    Kill kill{Victim::everything, (incremental.owed_from + incremental.owed_until) / 2};
    (void)m_history.qrtln(words(incremental), true, kill);
    m_history.keep("owing");
    add("owing", false);
    m_history.bring_back("changed");
    m_history.forget_sets();
    m_history.keep("first");
    add("first", true);
    return scenarios;
}

void Crashes::strike(const Scenario& scenario, const Kind& kind, std::size_t call) {
    m_history.bring_back(scenario.kept);
    m_judge.begin(scenario, scenario.kept + (scenario.full ? ", full, " : ", incremental, ") +
                                kind.name + " at call " + std::to_string(call) + " of " +
                                std::to_string(scenario.calls) + seed());
    bool ignores_files = m_plant != nullptr && !m_plant->in_module;
    std::optional<DurableDisk> disk;
    if (kind.cut)
        disk.emplace(m_history.disk(), ignores_files);
    Run run = m_history.qrtln(words(scenario), true, {kind.victim, call}, disk ? &*disk : nullptr);
    ++m_sums.kills[kind.name];
    m_sums.missed += run.killed ? 0 : 1;
    if (kind.in_next_run)
        strike_next(scenario, *disk);
    if (disk)
        disk->cut(*kind.cut, m_random);
}

// Kills it as well, or not.
void Crashes::strike_next(const Scenario& scenario, DurableDisk& disk) {
    std::size_t call = m_random() % 4 == 0 ? 0 : 1 + m_random() % scenario.calls;
    NextRun observer(m_history.store(), disk, m_judge);
    Run next = m_history.qrtln(words(scenario), true, {Victim::everything, call}, &observer);
    observer.before_call();
    m_judge.also("the next one at " + std::to_string(call));
    if (!next.killed && next.exit_code != 0)
        m_judge.violated(rule::next_run, next.errors);
}

void Crashes::kill_at_call(const Scenario& scenario, const Kind& kind, std::size_t call) {
    strike(scenario, kind, call);
    ++m_sums.at_calls;
    m_judge.judge_remains();
    m_judge.judge_next_runs();
}

// All calls with all kinds, or some spread over the run with the kinds in turn. The last call is
// behind the end: what a run that succeeded had flushed must be there, too.
void Crashes::kill_at_calls(const Scenario& scenario) {
    std::size_t last = scenario.calls + 1;
    if (m_options.all) {
        for (std::size_t call = m_options.from; call <= last; ++call)
            for (const Kind& kind : kinds)
                if (std::string_view(kind.name).find(m_options.kind) != std::string_view::npos)
                    kill_at_call(scenario, kind, call);
        return;
    }
    for (std::size_t i = 0; i < m_options.calls; ++i) {
        std::size_t begin = last * i / m_options.calls;
        std::size_t end = std::max(last * (i + 1) / m_options.calls, begin + 1);
        kill_at_call(scenario, kinds[m_next_kind++ % kinds.size()],
                     begin + 1 + m_random() % (end - begin));
    }
}

void Crashes::kill_at_moment(const Scenario& scenario, const Kind& kind) {
    auto moment = std::chrono::microseconds(m_random() %
                                            static_cast<std::uint64_t>(scenario.takes.count() + 1));
    m_history.bring_back(scenario.kept);
    m_judge.begin(scenario, scenario.kept + (scenario.full ? ", full, " : ", incremental, ") +
                                kind.name + " after " + std::to_string(moment.count()) +
                                " microseconds" + seed());
    Run run = run_for(moment, kind.victim, m_history.command(words(scenario)),
                      m_history.environment(), m_history.scratch());
    ++m_sums.kills[kind.name];
    ++m_sums.at_moments;
    m_sums.missed += run.killed ? 0 : 1;
    m_judge.judge_remains();
    m_judge.judge_next_runs();
}

int Crashes::find_violations() {
    make_server();
    std::vector<Scenario> scenarios = make_scenarios();
    for (const Scenario& scenario : scenarios) {
        std::string name = scenario.kept + (scenario.full ? "-full" : "-incr");
        if (!m_options.scenario.empty() && m_options.scenario != name)
            continue;
        auto begin = std::chrono::steady_clock::now();
        int before = m_sums.at_calls + m_sums.at_moments;
        kill_at_calls(scenario);
        for (std::size_t i = 0; i < m_options.moments; ++i)
            kill_at_moment(scenario, kinds[m_next_victim++ % 3 * 2]); // those without a power cut
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        std::cout << name << ": " << scenario.calls << " calls, "
                  << m_sums.at_calls + m_sums.at_moments - before << " kills, "
                  << static_cast<int>(took.count()) << " s" << std::endl;
    }
    return report();
}

int Crashes::report() const {
    int violations = 0;
    for (const auto& [rule, count] : m_judge.violations())
        violations += count;
    for (const auto& [kind, count] : m_sums.kills)
        std::cout << "  " << kind << ": " << count << "\n";
    std::cout << m_sums.at_calls << " kills at calls, " << m_sums.at_moments << " at moments ("
              << m_sums.missed << " had ended before, or had no module yet), " << violations
              << " violations" << seed() << std::endl;
    return violations == 0 && m_sums.at_calls + m_sums.at_moments > 0 ? 0 : 1;
}

// From the end on, where a run gives its word: until the rule is violated.
int Crashes::find_planted(const Plant& plant) {
    make_server();
    Scenario scenario = look_at("changed", true);
    m_plant = &plant;
    Scenario planted = look_at("changed", true);
    planted.indexes = scenario.indexes;
    int kills = 0;
    const Kind& kind = plant.in_module ? kinds[0] : kinds[1];
    for (std::size_t call = planted.calls + 1; call > 0; --call) {
        strike(planted, kind, call);
        m_judge.judge_remains();
        ++kills;
        if (m_judge.violations().contains(plant.rule)) {
            std::cout << "the planted defect \"" << plant.name << "\" was found by the rule \""
                      << plant.rule << "\" at kill " << kills << seed() << std::endl;
            return 0;
        }
    }
    std::cout << "the planted defect \"" << plant.name << "\" was not found in " << kills
              << " kills" << seed() << std::endl;
    return 1;
}

int run_program(const Options& options) {
    std::string folder = (fs::temp_directory_path() / "qrtln-crash_XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr)
        throw std::runtime_error("cannot create " + folder);
    struct Removal {
        const std::string& folder;
        bool keep;
        ~Removal() {
            std::error_code ignored;
            if (!keep)
                fs::remove_all(folder, ignored);
        }
    } removal{folder, options.keep};
    Crashes crashes(options, folder);
    if (options.plant.empty())
        return crashes.find_violations();
    ::setenv("QRTLN_PLANT", options.plant.c_str(), 1);
    return crashes.find_planted(
        *std::find_if(plants.begin(), plants.end(),
                      [&](const Plant& plant) { return plant.name == options.plant; }));
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Kills backups, and judges what they leave and what the next ones make of it"};
    Options options;
    app.add_option("--calls", options.calls, "Calls of each scenario to kill at")
        ->capture_default_str();
    CLI::Option* moments =
        app.add_option("--moments", options.moments, "Random moments of each scenario to kill at")
            ->capture_default_str();
    app.add_option("--scenario", options.scenario, "Only this one")
        ->check(CLI::IsMember({"changed-full", "changed-incr", "owing-incr", "first-full"}));
    app.add_option("--kind", options.kind, "With --long only those with this in their names");
    app.add_option("--from", options.from, "With --long go on at this call")->capture_default_str();
    app.add_option("--plant", options.plant, "Look for this defect instead")
        ->check(CLI::IsMember({"marking", "flush", "index"}));
    app.add_flag("--long", options.all, "In every way at every call, and at 250 moments of each");
    app.add_flag("--keep", options.keep, "Keep the folder");
    app.add_option("--seed", options.seed, "Of everything random")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    constexpr std::size_t many = 250;
    if (options.all && moments->empty())
        options.moments = many;
    try {
        return run_program(options);
    } catch (const std::exception& failure) {
        std::cerr << "backup_crashes: " << failure.what() << "\n";
        return 1;
    }
}
